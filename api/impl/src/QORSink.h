// The text sinks of the log. Their failures do not reach the host.
#ifndef QOR_QORSINK_H
#define QOR_QORSINK_H

#include <cstdio>
#include <string_view>

namespace qor
{

// Opens a file for appending that another user may have prepared as a trap. Returns null, with
// errno, unless it is, or becomes, a regular file of this user with this one name. Follows no link,
// does not wait, and leaves no descriptor to a started program.
FILE* OpenLogFile(const char* path);

// Both print a line with one call, so that the lines of several threads do not mix. Neither SIGPIPE
// nor SIGXFSZ reaches the host because of it; bytes that cannot be written are dropped.
void PrintToFile(FILE* pFile, std::string_view line); // and flush it
void PrintToStdout(std::string_view line);

} // namespace qor

#endif
