// How the tools read their command lines.
#ifndef TOOLS_COMMON_COMMANDLINE_H
#define TOOLS_COMMON_COMMANDLINE_H

#include <cstdint>

#include <CLI/CLI.hpp>

namespace tools
{

/// For an unknown word it prints the word, and the known word that is nearest to it.
///
/// @return false if the process only has to end with exitStatus, because help, version or an error
/// has
///         been printed
bool ParseCommandLine(CLI::App& app, int count, char** pArguments, int& exitStatus);

/// Whole numbers in that range, written as people count: decimal, without leading zeros, which
/// would make an octal number of them elsewhere.
CLI::Validator Decimal(std::uint64_t low, std::uint64_t high);

/// @param what  the name for the message that it is missing, if the text is blank
CLI::Validator NotEmpty(const std::string& what);

} // namespace tools

#endif
