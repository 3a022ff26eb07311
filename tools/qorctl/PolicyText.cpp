// Reads the policy to send, and shows the place of a fault in it.
#include "qorctl/PolicyText.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

#include <glib.h>

#include <qor/PolicyMessage.h>

#include "common/Text.h"

namespace qorctl
{
namespace
{

struct TSClose
{
    void operator()(FILE* pFile) const
    {
        if (pFile != stdin)
        {
            std::fclose(pFile);
        }
    }
};

bool IsContinued(char byte) // within a character of UTF-8
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Lines end as the parser counts them: by a line feed, a carriage return, or both.
std::size_t StartOfLine(const std::string& text, std::size_t line)
{
    std::size_t start = 0;
    for (; line > 1 && start < text.size(); --line)
    {
        start = std::min(text.find_first_of("\r\n", start), text.size() - 1) + 1;
        start += text.compare(start - 1, 2, "\r\n") == 0 ? 1 : 0;
    }
    return start;
}

// How many columns of a terminal the text takes.
std::size_t Width(const std::string& text)
{
    std::size_t width = 0;
    for (const char* pNext = text.c_str(); *pNext != '\0'; pNext = g_utf8_next_char(pNext))
    {
        const gunichar character = g_utf8_get_char(pNext);
        const bool isOnAnother = g_unichar_iszerowidth(character) != FALSE;
        width += isOnAnother ? 0 : (g_unichar_iswide(character) != FALSE ? 2 : 1);
    }
    return width;
}

// Steps over so many characters.
std::size_t Skip(const std::string& text, std::size_t at, std::size_t count)
{
    for (; count > 0 && at < text.size(); --count)
    {
        for (++at; at < text.size() && IsContinued(text[at]);)
        {
            ++at;
        }
    }
    return at;
}

} // namespace

std::string PolicyName(const std::string& file)
{
    return file == "-" ? "standard input" : tools::Printable(file);
}

bool ReadPolicyText(const std::string& file, std::string& text, std::string& error)
{
    const std::string name = PolicyName(file);
    const std::unique_ptr<FILE, TSClose> input(file == "-" ? stdin
                                                           : std::fopen(file.c_str(), "rbe"));
    if (!input)
    {
        error = name + ": " + std::generic_category().message(errno);
        return false;
    }
    char buffer[65536];
    while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, input.get()))
    {
        text.append(buffer, count);
        if (text.size() > qor::MaxPolicySize())
        {
            error = name + " has more than the " + std::to_string(qor::MaxPolicySize()) +
                    " bytes that fit into one bus message";
            return false;
        }
    }
    if (std::ferror(input.get()) != 0)
    {
        error = name + ": " + std::generic_category().message(errno);
        return false;
    }
    if (text.empty())
    {
        error = name + " is empty";
        return false;
    }
    return true;
}

std::string ShowPlace(const std::string& text, const tools::TSXmlPlace& place)
{
    constexpr std::size_t around = 36;
    const std::size_t before = std::min(place.m_column - 1, around);
    const std::size_t line = StartOfLine(text, place.m_line);
    const std::size_t start = Skip(text, line, place.m_column - 1 - before);
    const std::size_t middle = Skip(text, start, before);
    const std::size_t end =
        std::min(text.find_first_of("\r\n", middle), Skip(text, middle, around));
    const std::string shown = tools::Printable(text.substr(start, middle - start));
    return "    " + shown + tools::Printable(text.substr(middle, end - middle)) + "\n    " +
           std::string(Width(shown), ' ') + "^\n";
}

} // namespace qorctl
