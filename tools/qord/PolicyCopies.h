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

/// The kept copies of one policy file: NAME.kept-1, NAME.kept-2 and so on, beside it. Numbers rise
/// and tell the age; clocks do not. A copy is the old file itself, under another name. Files of
/// other names, of numbers that nobody could ask for, and what is no file, are nobody's business
/// here, and with a limit of 0 neither are these.
///
/// The directory must outlive this object. TCFileError is thrown where it cannot be read.
class TCPolicyCopies
{
public:
    TCPolicyCopies(const TCDirectory& directory, std::string policyName, std::size_t limit);

    /// Gives a file in the directory the next number, and removes the oldest over the limit first.
    /// One that can have no name as a copy is removed.
    ///
    /// @return what could not be done, or empty
    std::string Keep(const std::string& name) const;

    /// Removes the oldest over the limit.
    ///
    /// @return what could not be done, or empty
    std::string Trim() const;

    /// Removes the oldest, on a disk that is full; none of them where even all would not do.
    ///
    /// @return false when nothing has been removed
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
