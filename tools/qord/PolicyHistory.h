// The record of the policies: the users who have set them, and their hashes.
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

/// Kept in the file NAME.history in the policy's directory. Policies and kept copies are the same
/// files under changing names, so an entry identifies its file by inode number, size and time of
/// writing; a file that another program has put there has no entry. Files that were copied to
/// another disk have new numbers; they are identified by their text and the second in which it was
/// written. If the record is missing or damaged, only these facts are missing.
class TCPolicyHistory
{
public:
    struct TSEntry
    {
        std::string m_sha256;
        std::optional<TSSender> m_setter; ///< Without groups.
    };

    /// Replaces the entries by those of the file.
    void Load(const TCPolicyStore& store);

    /// Adds the user who sets the policy that will be in force in a moment, and removes entries of
    /// policies that no longer exist.
    ///
    /// @param file  that policy's
    ///
    /// @return the new text of the record, for the store
    std::string Remember(const TCPolicyStore& store, const struct stat& file,
                         const std::string& sha256, const std::optional<TSSender>& setter);

    /// Whether a policy of that hash was stored by this service or one before it, and is still
    /// there.
    bool HasStored(const std::string& sha256) const;

    /// The facts about one file; reads the file if its hash is not known.
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
