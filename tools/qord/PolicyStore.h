// Keeps the policy file, whole at every moment.
#ifndef QORD_POLICYSTORE_H
#define QORD_POLICYSTORE_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <qor/PolicyMessage.h>

#include "qord/FileLock.h"
#include "qord/PolicyPlace.h"

namespace qord
{

/// The result of storing a policy.
struct TSStoreOutcome
{
    /// POLICY_STORED; POLICY_NOT_STORED: the old file is in place, and the kept ones too, on a full
    /// disk but for those that would have gone; POLICY_STATE_UNKNOWN
    qor::EPolicyResult m_result = qor::POLICY_NOT_STORED;
    bool m_wasInForce = false; ///< The very same text: nothing has been written.
    std::string m_words;       ///< Why it is not stored; if it is, what else failed, or empty.
};

/// Replaces the policy file in one step: a reader, and a crash at any moment, find either the old
/// or the new text, whole. A path that is a symbolic link stands for the file that it leads to.
class TCPolicyStore
{
public:
    explicit TCPolicyStore(std::string path, TSStoreRules rules = {});

    /// Creates the file's directory if there is none, locks the file for this process, completes a
    /// replacement that a crash has interrupted, and tries the steps of storing.
    ///
    /// @param warning  failures that keep no policy from being stored, or empty
    ///
    /// @return why no policy can be stored at the moment, though it may later; empty if it can
    /// @throws std::runtime_error with the reason, if no policy can ever be stored
    std::string Open(std::string& warning);

    /// Looks, and changes nothing.
    ///
    /// @return why nothing could be stored just now; empty when that is not known
    std::string WhyNotNow() const;

    /// Reads the policy that is in force, or the kept one of that number.
    ///
    /// @return false if it cannot be read or is larger than maxSize, with the reason in error; the
    ///         reason is empty if there is no such policy
    bool Read(std::uint64_t number, std::string& text, std::size_t maxSize,
              std::string& error) const;

    /// The kept policies, oldest first, then the one in force, if there are any; empty if the
    /// directory cannot be read.
    std::vector<TSStoredPolicy> List() const;

    /// Reads the record, FILE.history beside the policy.
    ///
    /// @return false if there is none, or it cannot be read or is larger than maxSize
    bool ReadRecord(std::string& text, std::size_t maxSize) const;

    using TRecorder = TCPolicyPlace::TRecorder;

    /// Returns when the text is on the disk. The recorder makes the record, FILE.history.
    TSStoreOutcome Store(std::string_view text, const TRecorder& recorder = nullptr);

private:
    void m_TakeLock(const TCPolicyPlace& place);

    std::string m_path;
    TSStoreRules m_rules;
    std::unique_ptr<TCFileLock> m_lock;
};

} // namespace qord

#endif
