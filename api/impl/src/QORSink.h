// The text sinks of the log: what goes wrong in one of them is no business of the host.
#ifndef QOR_QORSINK_H
#define QOR_QORSINK_H

#include <cstdio>
#include <string_view>

namespace qor
{

// Opens a file for appending that another user may have laid out as a trap: null, with errno, for
// all that is not, or does not become, a regular file of this user with this one name. Follows no
// link, waits for nothing, and leaves no descriptor to a started program.
FILE* OpenLogFile(const char* path);

// Both print a line with one call, so that the lines of several threads do not mix. Neither SIGPIPE
// nor SIGXFSZ reaches the host because of it; what cannot be written is dropped.
void PrintToFile(FILE* pFile, std::string_view line); // and flush it
void PrintToStdout(std::string_view line);

} // namespace qor

#endif
