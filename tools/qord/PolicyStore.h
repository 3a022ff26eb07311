// Keeps the policy file, whole at every moment.
#ifndef QORD_POLICYSTORE_H
#define QORD_POLICYSTORE_H

#include <string>

namespace qord
{

struct TSStoreRules
{
    unsigned int m_copies = 0; ///< How many of the replaced policies to keep.
    int m_minFreeMiB = 0;      ///< With less space than that left nothing is stored; 0: no limit.
};

/// Replaces the policy file in one step: a reader, and a crash at any moment, find either the old
/// or the new text, whole. A path that is a symbolic link stands for the file that it leads to.
class TCPolicyStore
{
public:
    explicit TCPolicyStore(std::string path, TSStoreRules rules = {});

    /// Creates the file's directory if there is none. A failure shows in the library's log, and
    /// when a policy is stored.
    void MakeDirectory() const;

    /// Returns when the text is on the disk. The new file has the permissions of the one that it
    /// replaces, and its owner where the process may give files away; 0644 where there is none.
    ///
    /// @return false, with the reason in error: the old file is still in place (unless only the
    ///         directory could not be synced) and nothing is left beside it
    bool Store(const std::string& text, std::string& error) const;

private:
    void m_Store(const std::string& text) const;

    std::string m_path;
    TSStoreRules m_rules;
};

} // namespace qord

#endif
