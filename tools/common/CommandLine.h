// How the tools read their command lines.
#ifndef TOOLS_COMMON_COMMANDLINE_H
#define TOOLS_COMMON_COMMANDLINE_H

#include <CLI/CLI.hpp>

#include "common/ExitStatus.h"

namespace tools
{

/// @return false where the process has nothing left to do but to end with exitStatus: help or
///         version has been printed, or what is wrong
inline bool ParseCommandLine(CLI::App& app, int count, char** pArguments, int& exitStatus)
{
    try
    {
        app.parse(count, pArguments);
        return true;
    }
    catch (const CLI::ParseError& error)
    {
        exitStatus = app.exit(error) == 0 ? EXIT_OK : EXIT_WRONG_USAGE;
        return false;
    }
}

} // namespace tools

#endif
