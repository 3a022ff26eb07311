// Standard output of the tools, which is either written or said to have failed.
#ifndef TOOLS_COMMON_OUTPUT_H
#define TOOLS_COMMON_OUTPUT_H

#include <stdexcept>
#include <string>

namespace tools
{

/// Standard output takes no more, because of a full disk, for example.
class TCOutputError : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Call first in main. A standard stream that the caller has closed stays one that fails: the next
/// file or socket of this process must not take its place.
void GuardStandardStreams();

/// Writes and flushes. If the reader of a pipe has gone, SIGPIPE ends the process silently, as it
/// does with other programs of a pipeline.
///
/// @throws TCOutputError
void Print(const std::string& text);

/// Whether people read the output on a terminal that takes colours, and want them.
bool HasColours();

} // namespace tools

#endif
