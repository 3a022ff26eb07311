// The messages of the log since the last look: "E " or "D " for the priority, then the text.
#ifndef QORTEST_LOGGED_H
#define QORTEST_LOGGED_H

#include <string>
#include <vector>

#include "LogCapture.h"

namespace qortest
{

using TLines = std::vector<std::string>;

/// Forgets the lines. A line that does not begin with the given place in the source is kept whole.
inline TLines Logged(const std::string& place)
{
    TLines messages;
    for (const LogLine& line : LogCapture::Lines())
    {
        const bool own = line.id == 2 && line.tag == "QOR" && line.text.find(place) == 0;
        const std::size_t start = own ? line.text.find(" > ") + 3 : 0;
        const char* priority = line.priority == LOG_ERROR ? "E " : "D ";
        messages.push_back(priority + line.text.substr(start));
    }
    LogCapture::Clear();
    return messages;
}

} // namespace qortest

#endif
