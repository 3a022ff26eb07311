// Prints the lines of qorctl listen.
#ifndef QORCTL_EVENTPRINTER_H
#define QORCTL_EVENTPRINTER_H

#include <string>

namespace qorctl
{

/// Writes one flushed line for each event: a timestamp with its zone, and what happened.
class TCEventPrinter
{
public:
    explicit TCEventPrinter(bool json);

    /// An event from the service.
    void PrintEvent(const char* event) const;

    /// The service came or went; owner is its unique name, empty when it went.
    void PrintService(const std::string& owner) const;

private:
    bool m_json;
};

} // namespace qorctl

#endif
