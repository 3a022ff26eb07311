// The messages that qorctl prints besides its results.
#include "qorctl/Message.h"

#include <cstdio>

#include "common/Output.h"

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
        tools::Print(message + '\n');
    }
}

} // namespace qorctl
