// Keeps the policies that new ones replace.
#include "qord/PolicyCopies.h"

#include <algorithm>
#include <charconv>
#include <utility>

#include "qord/FileError.h"

namespace qord
{
namespace
{

// The largest number that can be asked for.
constexpr std::uint64_t LAST_NUMBER = INT32_MAX;

constexpr std::uint64_t BLOCK = 512;

// The disk gets well, and the next time it works.
bool IsForGood(int code)
{
    return code == ENAMETOOLONG || code == EOVERFLOW;
}

} // namespace

TCPolicyCopies::TCPolicyCopies(const TCDirectory& directory, std::string policyName,
                               std::size_t limit)
    : m_directory(directory), m_start(std::move(policyName) + ".kept-"), m_limit(limit)
{
}

std::string TCPolicyCopies::Keep(const std::string& name) const
{
    const TNumbers taken = m_Taken();
    const std::uint64_t number = taken.empty() ? 1 : taken.back() + 1;
    std::string warning = m_RemoveOldest(m_limit - 1);
    try
    {
        if (number > LAST_NUMBER)
        {
            Fail("there is no number after " + NameOf(LAST_NUMBER), EOVERFLOW);
        }
        m_directory.Rename(name, NameOf(number));
    }
    catch (const TCFileError& error)
    {
        AddWarning(warning, std::string("the replaced policy is not kept: ") + error.what());
        if (IsForGood(error.Code()))
        {
            m_directory.Remove(name);
        }
    }
    return warning;
}

std::string TCPolicyCopies::Trim() const
{
    return m_limit > 0 ? m_RemoveOldest(m_limit) : "";
}

bool TCPolicyCopies::MakeRoom(std::uint64_t bytes) const
{
    const TNumbers numbers = m_limit > 0 ? List() : TNumbers();
    std::uint64_t atMost = m_directory.FreeSpace();
    for (const std::uint64_t number : numbers)
    {
        struct stat status;
        atMost += m_directory.Look(NameOf(number), status)
                      ? static_cast<std::uint64_t>(status.st_blocks) * BLOCK
                      : 0;
    }
    if (numbers.empty() || atMost < bytes)
    {
        return false;
    }
    m_RemoveOldest(numbers.size() - 1);
    return List().size() < numbers.size();
}

// An entry that is not a file is not listed, but its number is taken.
TCPolicyCopies::TNumbers TCPolicyCopies::List() const
{
    TNumbers numbers = m_Taken();
    const auto isOther = [this](std::uint64_t number)
    {
        struct stat status;
        return !m_directory.Look(NameOf(number), status) || !S_ISREG(status.st_mode);
    };
    numbers.erase(std::remove_if(numbers.begin(), numbers.end(), isOther), numbers.end());
    return numbers;
}

// In order. Ignores numbers that are written differently from ours.
TCPolicyCopies::TNumbers TCPolicyCopies::m_Taken() const
{
    TNumbers numbers;
    for (const std::string& name : m_directory.List())
    {
        std::uint64_t number = 0;
        if (name.compare(0, m_start.size(), m_start) == 0)
        {
            std::from_chars(name.data() + m_start.size(), name.data() + name.size(), number);
            if (number != 0 && number <= LAST_NUMBER && name == NameOf(number))
            {
                numbers.push_back(number);
            }
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

// In place of one that stays, the next goes.
std::string TCPolicyCopies::m_RemoveOldest(std::size_t left) const
{
    std::string warning;
    const TNumbers numbers = List();
    std::size_t count = numbers.size();
    for (std::size_t i = 0; i < numbers.size() && count > left; ++i)
    {
        try
        {
            m_directory.Remove(NameOf(numbers[i]));
            --count;
        }
        catch (const TCFileError& error)
        {
            AddWarning(warning, error.what());
        }
    }
    return warning;
}

std::string TCPolicyCopies::NameOf(std::uint64_t number) const
{
    return m_start + std::to_string(number);
}

} // namespace qord
