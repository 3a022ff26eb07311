// Prints the lines of qorctl listen.
#ifndef QORCTL_EVENTPRINTER_H
#define QORCTL_EVENTPRINTER_H

#include <string>

namespace qorctl
{

/// Writes one line for each event: a timestamp with its zone, and what happened.
class TCEventPrinter
{
public:
    explicit TCEventPrinter(bool json);

    /// An event from the service.
    void PrintEvent(const std::string& event) const;

    /// The service is there, and will send its events.
    void PrintAppeared(const std::string& owner) const;

    /// It has gone, or has not been there yet.
    void PrintGone(bool wasThere) const;

private:
    void m_Print(const std::string& event, const std::string& words,
                 const std::string& owner = "") const;

    bool m_json;
};

} // namespace qorctl

#endif
