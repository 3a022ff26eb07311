// Tables for people.
#include "qorctl/Table.h"

#include <algorithm>
#include <utility>

#include "common/Output.h"

namespace qorctl
{
namespace
{

constexpr char BOLD[] = "\033[1m";
constexpr char PLAIN[] = "\033[0m";

// In characters: the bytes of UTF-8 that begin one.
std::size_t Width(const std::string& text)
{
    return static_cast<std::size_t>(
        std::count_if(text.begin(), text.end(),
                      [](char byte) { return (static_cast<unsigned char>(byte) & 0xC0) != 0x80; }));
}

std::vector<std::size_t> Widths(const std::vector<TRow>& rows)
{
    std::vector<std::size_t> widths;
    for (const TRow& row : rows)
    {
        widths.resize(std::max(widths.size(), row.size()));
        for (std::size_t i = 0; i < row.size(); ++i)
        {
            widths[i] = std::max(widths[i], Width(row[i]));
        }
    }
    return widths;
}

std::string Line(const TRow& row, const std::vector<std::size_t>& widths)
{
    std::string line;
    for (std::size_t i = 0; i < row.size(); ++i)
    {
        const bool isLast = i + 1 == row.size();
        line += row[i] + (isLast ? "" : std::string(widths[i] - Width(row[i]) + 2, ' '));
    }
    return line;
}

} // namespace

TCTable::TCTable(TRow header) : m_hasHeader(!header.empty())
{
    if (m_hasHeader)
    {
        m_rows.push_back(std::move(header));
    }
}

void TCTable::Add(TRow row)
{
    m_rows.push_back(std::move(row));
}

void TCTable::Print() const
{
    const std::vector<std::size_t> widths = Widths(m_rows);
    const bool isBold = m_hasHeader && tools::HasColours();
    std::string text;
    for (const TRow& row : m_rows)
    {
        const std::string line = Line(row, widths);
        text += (isBold && text.empty() ? BOLD + line + PLAIN : line) + '\n';
    }
    tools::Print(text);
}

} // namespace qorctl
