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
/// files under changing names: an entry knows its file by number, size and time of writing, so that
/// one that somebody else has put there has no entry. Files that were carried elsewhere, with
/// another disk or in an archive, have new numbers: they are known by their text and the second in
/// which it was written. Without the record, or where it is broken, only these words are missing.
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

    /// Remembers who has set the policy that will be in force in a moment, and forgets those that
    /// are gone.
    ///
    /// @param file  that policy's
    ///
    /// @return what is remembered now, for the store's record
    std::string Remember(const TCPolicyStore& store, const struct stat& file,
                         const std::string& sha256, const std::optional<TSSender>& setter);

    /// Whether a policy of that hash was stored by this service or one before it, and is still
    /// there.
    bool HasStored(const std::string& sha256) const;

    /// What is known of one file; reads it for its hash where that is not.
    TSEntry Find(const TCPolicyStore& store, const TSStoredPolicy& policy);

private:
    struct TSRecord
    {
        std::uint64_t m_inode = 0;
        std::int64_t m_size = 0;
        std::int64_t m_written = 0;     ///< Seconds,
        std::int64_t m_nanoseconds = 0; ///< and their fraction, which archives forget.
        TSEntry m_entry;
    };

    static TSRecord m_RecordOf(const struct stat& file);
    const TSRecord* m_FindFile(const TSRecord& wanted) const;
    const TSRecord* m_FindText(const TSRecord& wanted) const;
    std::string m_ToText() const;

    std::vector<TSRecord> m_records;
};

} // namespace qord

#endif
