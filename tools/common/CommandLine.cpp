// How the tools read their command lines.
#include "common/CommandLine.h"

#include <algorithm>
#include <charconv>
#include <iostream>
#include <numeric>
#include <sstream>

#include "common/ExitStatus.h"
#include "common/Output.h"
#include "common/Text.h"

namespace tools
{
namespace
{

using TWords = std::vector<std::string>;

// How many characters have to be put in, taken out or replaced to get from one to the other.
std::size_t Distance(const std::string& from, const std::string& to)
{
    std::vector<std::size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), 0U);
    for (std::size_t i = 1; i <= from.size(); ++i)
    {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= to.size(); ++j)
        {
            const std::size_t replaced = diagonal + (from[i - 1] == to[j - 1] ? 0 : 1);
            diagonal = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, replaced});
        }
    }
    return row.back();
}

// Empty if no known word is near enough.
std::string Nearest(const std::string& word, const TWords& known)
{
    const auto nearest = std::min_element(known.begin(), known.end(),
                                          [&word](const std::string& a, const std::string& b)
                                          { return Distance(word, a) < Distance(word, b); });
    const bool isNear = nearest != known.end() && Distance(word, *nearest) <= 1 + word.size() / 3;
    return isNear ? "; did you mean " + *nearest + "?" : "";
}

TWords Commands(const CLI::App& app)
{
    TWords names;
    for (const CLI::App* pCommand : app.get_subcommands([](const CLI::App*) { return true; }))
    {
        names.push_back(pCommand->get_name());
    }
    return names;
}

TWords OptionNames(const CLI::App& app)
{
    TWords names;
    for (const CLI::Option* pOption : app.get_options())
    {
        for (const std::string& name : pOption->get_lnames())
        {
            names.push_back("--" + name);
        }
    }
    return names;
}

// Empty if the library's own message is to be used.
std::string UnknownWord(const CLI::App& app)
{
    TWords unknown = app.remaining(true);
    unknown.erase(std::remove(unknown.begin(), unknown.end(), "--"), unknown.end());
    if (unknown.empty())
    {
        return "";
    }
    const std::string& word = unknown.front();
    const auto chosen = app.get_subcommands();
    if (word.compare(0, 1, "-") == 0)
    {
        TWords known = OptionNames(app);
        for (const CLI::App* pCommand : chosen)
        {
            const TWords more = OptionNames(*pCommand);
            known.insert(known.end(), more.begin(), more.end());
        }
        return "unknown option " + word + Nearest(word, known);
    }
    const TWords commands = Commands(app);
    const bool isCommand = chosen.empty() && !commands.empty();
    return isCommand ? "unknown command " + word + Nearest(word, commands)
                     : "unexpected argument " + word;
}

} // namespace

bool ParseCommandLine(CLI::App& app, int count, char** pArguments, int& exitStatus)
{
    try
    {
        app.parse(count, pArguments);
        return true;
    }
    catch (const CLI::ParseError& error)
    {
        std::ostringstream out;
        const bool isAnswer = app.exit(error, out, out) == 0; // help, version
        if (isAnswer)
        {
            Print(out.str());
            exitStatus = EXIT_OK;
            return false;
        }
        const std::string unknown = UnknownWord(app);
        std::cerr << app.get_name() << ": " << Printable(unknown.empty() ? error.what() : unknown)
                  << "\nRun with --help for more information.\n";
        exitStatus = EXIT_WRONG_USAGE;
        return false;
    }
}

CLI::Validator Decimal(std::uint64_t low, std::uint64_t high)
{
    return CLI::Validator(
        [low, high](const std::string& text)
        {
            std::uint64_t number = 0;
            std::from_chars(text.data(), text.data() + text.size(), number);
            const bool isGood = text == std::to_string(number) && number >= low && number <= high;
            return isGood ? ""
                          : text + " is not a whole number from " + std::to_string(low) + " to " +
                                std::to_string(high);
        },
        "");
}

CLI::Validator NotEmpty(const std::string& what)
{
    return CLI::Validator(
        [what](const std::string& text) {
            return text.find_first_not_of(" \t\n") == std::string::npos ? what + " is missing" : "";
        },
        "");
}

} // namespace tools
