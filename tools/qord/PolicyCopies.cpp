// Keeps the policies that new ones replace.
#include "qord/PolicyCopies.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace qord
{

TCPolicyCopies::TCPolicyCopies(const TCDirectory& directory, std::string policyName,
                               std::size_t limit)
    : m_directory(directory), m_start(std::move(policyName) + ".kept-"), m_limit(limit)
{
}

void TCPolicyCopies::Keep(const std::string& name) const
{
    const TNumbers numbers = List();
    m_RemoveOldest(numbers, m_limit - 1);
    m_directory.Rename(name, NameOf(numbers.empty() ? 1 : numbers.back() + 1));
}

void TCPolicyCopies::Trim() const
{
    if (m_limit > 0)
    {
        m_RemoveOldest(List(), m_limit);
    }
}

bool TCPolicyCopies::MakeRoom() const
{
    return m_limit > 0 && m_RemoveOldest(List(), m_limit - 1);
}

// In order. A number that is written in another way than it is here is somebody else's.
TCPolicyCopies::TNumbers TCPolicyCopies::List() const
{
    TNumbers numbers;
    for (const std::string& name : m_directory.List())
    {
        std::uint64_t number = 0;
        if (name.compare(0, m_start.size(), m_start) == 0)
        {
            std::from_chars(name.data() + m_start.size(), name.data() + name.size(), number);
            if (number != 0 && number != UINT64_MAX && name == NameOf(number))
            {
                numbers.push_back(number);
            }
        }
    }
    std::sort(numbers.begin(), numbers.end());
    return numbers;
}

bool TCPolicyCopies::m_RemoveOldest(const TNumbers& numbers, std::size_t left) const
{
    if (numbers.size() <= left)
    {
        return false;
    }
    for (std::size_t i = 0; i < numbers.size() - left; ++i)
    {
        m_directory.Remove(NameOf(numbers[i]));
    }
    return true;
}

std::string TCPolicyCopies::NameOf(std::uint64_t number) const
{
    return m_start + std::to_string(number);
}

} // namespace qord
