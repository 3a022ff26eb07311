// How the tools read their command lines.
#ifndef TOOLS_COMMON_COMMANDLINE_H
#define TOOLS_COMMON_COMMANDLINE_H

#include <cstdint>

#include <CLI/CLI.hpp>

namespace tools
{

/// A word that is not known is named, with the nearest one that is.
///
/// @return false where the process has nothing left to do but to end with exitStatus: help or
///         version has been printed, or what is wrong
bool ParseCommandLine(CLI::App& app, int count, char** pArguments, int& exitStatus);

/// Whole numbers in that range, written as people count: decimal, without leading zeros, which
/// would make an octal number of them elsewhere.
CLI::Validator Decimal(std::uint64_t low, std::uint64_t high);

/// @param what  is missing where the text has nothing but blanks
CLI::Validator NotEmpty(const std::string& what);

} // namespace tools

#endif
