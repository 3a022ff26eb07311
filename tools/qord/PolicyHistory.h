// What the service remembers of the policies: who set them, and their hashes.
#ifndef QORD_POLICYHISTORY_H
#define QORD_POLICYHISTORY_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "qord/PolicyStore.h"
#include "qord/Sender.h"

namespace qord
{

/// Kept in a file of its own beside the policy, NAME.history. Policies and kept copies are the same
/// files under changing names: an entry knows its file by inode, size and time of writing, so that
/// one that somebody else has put there has no entry. Without the file, or where it is broken, only
/// these words are missing.
class TCPolicyHistory
{
public:
    struct TSEntry
    {
        std::string m_sha256;
        std::optional<TSSender> m_setter; ///< Without groups.
    };

    /// Replaces what is remembered by what the file has.
    void Load(const TCPolicyStore& store);

    /// Remembers who has set the policy that is in force now, and forgets those that are gone.
    ///
    /// @return what has gone wrong, or empty
    std::string Remember(const TCPolicyStore& store, const std::string& sha256,
                         const std::optional<TSSender>& setter);

    /// What is known of one file; reads it for its hash where that is not.
    TSEntry Find(const TCPolicyStore& store, const TSStoredPolicy& policy);

private:
    struct TSRecord
    {
        std::uint64_t m_inode = 0;
        std::int64_t m_size = 0;
        std::int64_t m_written = 0; ///< Nanoseconds.
        TSEntry m_entry;
    };

    static TSRecord m_RecordOf(const TSStoredPolicy& policy);
    TSRecord* m_Find(const TSStoredPolicy& policy);
    std::string m_ToText() const;

    std::vector<TSRecord> m_records;
};

} // namespace qord

#endif
