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

    /// @param words  for people
    void Print(const std::string& event, const std::string& words) const;

private:
    bool m_json;
};

} // namespace qorctl

#endif
