// What qorctl says beside its results.
#include "qorctl/Message.h"

#include <cstdio>

namespace qorctl
{

void SayError(const std::string& message)
{
    std::fprintf(stderr, "qorctl: %s\n", message.c_str());
}

void Say(bool quiet, const std::string& message)
{
    if (!quiet)
    {
        std::printf("%s\n", message.c_str());
        std::fflush(stdout);
    }
}

} // namespace qorctl
