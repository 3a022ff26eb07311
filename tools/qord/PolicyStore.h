// Keeps the policy file, whole at every moment.
#ifndef QORD_POLICYSTORE_H
#define QORD_POLICYSTORE_H

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include <qor/PolicyMessage.h>

#include "qord/FileLock.h"

namespace qord
{

struct TSStoreRules
{
    unsigned int m_copies = 0; ///< How many of the replaced policies to keep.
    unsigned int m_minFreeMiB =
        0; ///< With less space than that left nothing is stored; 0: no limit.
};

/// Replaces the policy file in one step: a reader, and a crash at any moment, find either the old
/// or the new text, whole. A path that is a symbolic link stands for the file that it leads to.
class TCPolicyStore
{
public:
    explicit TCPolicyStore(std::string path, TSStoreRules rules = {});

    /// Creates the file's directory if there is none, takes the file for this process, ends what a
    /// crash has interrupted, and tries what storing needs.
    ///
    /// @return why nothing could be stored just now, though it may later; empty when it could
    /// @throws std::runtime_error where nothing could ever be stored, with the reason
    std::string Open();

    /// Reads the policy that is in force.
    ///
    /// @return false, with the reason in error, when it cannot be read or is larger than that; with
    ///         an empty one when there is none
    bool Read(std::string& text, std::size_t maxSize, std::string& error) const;

    /// Returns when the text is on the disk.
    ///
    /// @param error  the reason, where the result is not POLICY_STORED; else what could not be
    ///               cleaned up, which the next Store tries again, or empty
    ///
    /// @return POLICY_STORED; POLICY_NOT_STORED: the old file is in place, and the kept ones too
    ///         (on a full disk, but for the one that would have gone); POLICY_STATE_UNKNOWN
    qor::EPolicyResult Store(std::string_view text, std::string& error) const;

private:
    std::string m_path;
    TSStoreRules m_rules;
    std::unique_ptr<TCFileLock> m_lock;
};

} // namespace qord

#endif
