// Keeps the policy file, whole at every moment.
#ifndef QORD_POLICYSTORE_H
#define QORD_POLICYSTORE_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

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

/// The policy in force, or a kept one.
struct TSStoredPolicy
{
    std::uint64_t m_number = 0; ///< 0: the one in force.
    struct stat m_status = {};
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

    /// Reads the policy that is in force, or the kept one of that number.
    ///
    /// @return false, with the reason in error, when it cannot be read or is larger than that; with
    ///         an empty one when there is none
    bool Read(std::uint64_t number, std::string& text, std::size_t maxSize,
              std::string& error) const;

    /// The kept ones in the order of their age, oldest first, then the one in force, as far as
    /// there are any; empty where the directory cannot be read.
    std::vector<TSStoredPolicy> List() const;

    /// Reads another file of the service's, the policy's name with a suffix, and ends what a crash
    /// has interrupted there.
    ///
    /// @return false when there is none, or it cannot be read or is larger than that
    bool ReadBeside(const std::string& suffix, std::string& text, std::size_t maxSize) const;

    /// Replaces that file as the policy is replaced.
    ///
    /// @return what has gone wrong, or empty
    std::string WriteBeside(const std::string& suffix, const std::string& text) const;

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
