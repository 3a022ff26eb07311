// Keeps the policies that new ones replace.
#ifndef QORD_POLICYCOPIES_H
#define QORD_POLICYCOPIES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qord/Directory.h"

namespace qord
{

/// The kept copies of one policy file: NAME.kept-1, NAME.kept-2 and so on, in the same directory.
/// The numbers rise and tell the age; clocks do not. A copy is the old file itself, under another
/// name. This class does not touch files with other names or with numbers that cannot be asked for,
/// nor entries that are not files; with a limit of 0 it touches no copies either.
///
/// The directory must outlive this object. TCFileError is thrown if it cannot be read.
class TCPolicyCopies
{
public:
    TCPolicyCopies(const TCDirectory& directory, std::string policyName, std::size_t limit);

    /// Gives a file in the directory the next number, after removing the oldest copies over the
    /// limit. If the name of the copy would be too long, the file is removed.
    ///
    /// @return what could not be done, or empty
    std::string Keep(const std::string& name) const;

    /// Removes the oldest copies over the limit.
    ///
    /// @return what could not be done, or empty
    std::string Trim() const;

    /// Removes the oldest copies on a full disk; none if even removing all would not be enough.
    ///
    /// @return false if no copy was removed
    bool MakeRoom(std::uint64_t bytes) const;

    using TNumbers = std::vector<std::uint64_t>;

    /// The numbers of those that are kept, in order.
    TNumbers List() const;

    /// The name of one in the directory.
    std::string NameOf(std::uint64_t number) const;

private:
    TNumbers m_Taken() const;
    std::string m_RemoveOldest(std::size_t left) const;

    const TCDirectory& m_directory;
    std::string m_start; ///< Of the names.
    std::size_t m_limit;
};

} // namespace qord

#endif
