// Keeps copies of the policies that new ones replace.
#ifndef QORD_POLICYCOPIES_H
#define QORD_POLICYCOPIES_H

#include <vector>

#include <boost/filesystem/path.hpp>

namespace qord
{

/// The copies of one policy file. They stand beside it, named like it with a number before the
/// extension (policy_1.xml); the modification time, not the number, tells which is older.
class TCPolicyCopies
{
public:
    TCPolicyCopies(boost::filesystem::path policyFile, unsigned int limit);

    /// Copies the file as it is now. Whole or not at all, also in a crash.
    ///
    /// @param copy  the copy; empty when there is no file yet, or the limit is 0
    /// @return false when it could not be copied; the library's log says why
    bool Keep(boost::filesystem::path& copy) const;

    /// Takes back a copy whose file was not replaced after all.
    void Drop(const boost::filesystem::path& copy) const;

    /// Removes the oldest copies beyond the limit.
    void RemoveOld() const;

private:
    std::vector<boost::filesystem::path> m_List() const;
    bool m_IsCopy(const boost::filesystem::path& file) const;

    boost::filesystem::path m_policyFile;
    unsigned int m_limit;
};

} // namespace qord

#endif
