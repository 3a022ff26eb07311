// The policy's directory and the files in it.
#ifndef QORD_POLICYPLACE_H
#define QORD_POLICYPLACE_H

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/filesystem/path.hpp>

#include "qord/AtomicFile.h"
#include "qord/Directory.h"
#include "qord/PolicyCopies.h"

namespace qord
{

struct TSStoreRules
{
    unsigned int m_copies = 0; ///< How many of the replaced policies to keep.
    unsigned int m_minFreeMiB =
        0;                       ///< With less space than that left nothing is stored; 0: no limit.
    bool m_isRestricted = false; ///< The files are not for everybody to read.
};

/// The policy in force, or a kept one.
struct TSStoredPolicy
{
    std::uint64_t m_number = 0; ///< 0: the one in force.
    struct stat m_status = {};
};

/// Opened when it is made; nothing here follows a link. All functions throw TCFileError; failures
/// that keep no policy from being stored are returned as a warning.
class TCPolicyPlace
{
public:
    TCPolicyPlace(const boost::filesystem::path& file, const TSStoreRules& rules);

    const TCDirectory& Directory() const
    {
        return m_directory;
    }
    const std::string& FileName() const
    {
        return m_name;
    }
    std::string NameOf(std::uint64_t number) const;

    /// Of the file beside the policy that tells who has set what.
    const std::string& RecordName() const
    {
        return m_recordName;
    }

    /// Before anything is made.
    void RefuseOtherThanFile() const;

    /// Completes or undoes a replacement that was interrupted.
    std::string Settle() const;

    /// If reading is restricted, takes the rights of others from files of an earlier service.
    std::string Restrict() const;

    void Probe() const;

    /// The part of it that makes no file.
    void RefuseWithoutRoom() const;

    /// Whether the policy in force is that text; then it is on the disk, too.
    bool IsInForce(std::string_view text) const;

    /// Gets the file that is about to be the policy, and returns the new text of the record. The
    /// record is on the disk before the policy is in force; if it cannot be written, the policy is
    /// still stored.
    using TRecorder = std::function<std::string(const struct stat& file)>;

    /// @param recorder  may be empty: then the record stays
    std::string Replace(std::string_view text, const TRecorder& recorder) const;

    std::vector<TSStoredPolicy> List() const;

private:
    class TCRecording;

    void m_RefuseWithoutSpace() const;
    std::string m_PutAway(const std::string& former) const;
    TSReplaced m_ReplaceWithRecord(std::string_view text, const TRecorder& recorder) const;
    void m_WithRoom(std::uint64_t bytes, const std::function<void()>& step) const;

    const TSStoreRules& m_rules;
    std::string m_name;
    std::string m_recordName;
    TCDirectory m_directory;
    TCAtomicFile m_file;
    TCPolicyCopies m_copies;
};

} // namespace qord

#endif
