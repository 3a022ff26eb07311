// The policy's directory and the files in it.
#include "qord/PolicyPlace.h"

#include <fcntl.h>
#include <unistd.h>

#include <memory>
#include <utility>

#include "qord/FileError.h"
#include "qord/FileRights.h"

namespace qord
{
namespace
{

constexpr std::uint64_t BYTES_PER_MIB = 1048576;
constexpr std::uint64_t RECORD_ROOM = 4096; // about the size of the record

} // namespace

// The record is written at once, so that the disk may take it together with the policy, and
// finished when the policy is there. What goes wrong before is tried again then.
class TCPolicyPlace::TCRecording
{
public:
    TCRecording(const TCPolicyPlace& place, const TRecorder& recorder)
        : m_place(place), m_recorder(recorder)
    {
    }

    void Begin(const struct stat& file)
    try
    {
        m_text = m_recorder ? m_recorder(file) : "";
        m_pWritten = m_text.empty() ? nullptr : m_Write();
    }
    catch (const TCFileError&)
    {
    }

    void Finish()
    try
    {
        if (!m_text.empty())
        {
            m_place.m_WithRoom(RECORD_ROOM, [this] { m_Finish(); });
        }
    }
    catch (const TCFileError& error)
    {
        m_warning = std::string("the user who has set it is not recorded: ") + error.what();
    }

    const std::string& Warning() const
    {
        return m_warning;
    }

private:
    std::unique_ptr<TCPlainReplacement> m_Write() const
    {
        return std::make_unique<TCPlainReplacement>(m_place.m_directory, m_place.m_recordName,
                                                    m_text, m_place.m_rules.m_isRestricted);
    }

    void m_Finish()
    {
        auto pWritten = std::exchange(m_pWritten, nullptr);
        pWritten = pWritten ? std::move(pWritten) : m_Write();
        pWritten->Finish();
    }

    const TCPolicyPlace& m_place;
    const TRecorder& m_recorder;
    std::string m_text;
    std::unique_ptr<TCPlainReplacement> m_pWritten;
    std::string m_warning;
};

TCPolicyPlace::TCPolicyPlace(const boost::filesystem::path& file, const TSStoreRules& rules)
    : m_rules(rules),
      m_name(file.filename().string()),
      m_recordName(m_name + ".history"),
      m_directory(file.has_parent_path() ? file.parent_path().string() : "."),
      m_file(m_directory, m_name),
      m_copies(m_directory, m_name, rules.m_copies)
{
}

std::string TCPolicyPlace::NameOf(std::uint64_t number) const
{
    return number == 0 ? m_name : m_copies.NameOf(number);
}

void TCPolicyPlace::RefuseOtherThanFile() const
{
    struct stat status;
    m_file.Look(status);
}

std::string TCPolicyPlace::Settle() const
{
    std::string warning;
    try
    {
        for (const std::string& former : m_file.Tidy(warning))
        {
            AddWarning(warning, m_PutAway(former));
        }
        AddWarning(warning, m_copies.Trim());
    }
    catch (const TCFileError& error)
    {
        AddWarning(warning, error.what());
    }
    return warning;
}

std::string TCPolicyPlace::Restrict() const
{
    std::string warning;
    if (!m_rules.m_isRestricted)
    {
        return warning;
    }
    std::vector<std::string> names = {m_name, m_recordName};
    for (const std::uint64_t number : m_copies.List())
    {
        names.push_back(m_copies.NameOf(number));
    }
    for (const std::string& name : names)
    {
        try
        {
            CloseToOthers(m_directory, name);
        }
        catch (const TCFileError& error)
        {
            AddWarning(warning, error.what());
        }
    }
    return warning;
}

void TCPolicyPlace::Probe() const
{
    m_file.Probe();
    m_RefuseWithoutSpace();
}

void TCPolicyPlace::RefuseWithoutRoom() const
{
    if (faccessat(m_directory.Get(), ".", W_OK, AT_EACCESS) != 0)
    {
        Fail("writing into its directory");
    }
    m_RefuseWithoutSpace();
}

// Another program, or an interrupted attempt, may have written the text without syncing it.
bool TCPolicyPlace::IsInForce(std::string_view text) const
{
    struct stat status;
    std::string present;
    std::string error;
    if (!m_file.Look(status) || static_cast<std::uint64_t>(status.st_size) != text.size() ||
        !m_directory.Read(m_name, present, text.size(), error) || present != text)
    {
        return false;
    }
    const TCDescriptor file(
        openat(m_directory.Get(), m_name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (file.Get() < 0 || fsync(file.Get()) != 0)
    {
        Fail("syncing the policy in force");
    }
    m_directory.Sync();
    return true;
}

std::string TCPolicyPlace::Replace(std::string_view text, const TRecorder& recorder) const
{
    m_RefuseWithoutSpace();
    TSReplaced replaced;
    m_WithRoom(text.size(), [&] { replaced = m_ReplaceWithRecord(text, recorder); });
    std::string warning = replaced.m_warning;
    if (!replaced.m_former.empty())
    {
        AddWarning(warning, m_PutAway(replaced.m_former));
    }
    return warning;
}

std::vector<TSStoredPolicy> TCPolicyPlace::List() const
{
    std::vector<TSStoredPolicy> policies;
    TSStoredPolicy policy;
    for (const std::uint64_t number : m_copies.List())
    {
        policy.m_number = number;
        if (m_directory.Look(m_copies.NameOf(number), policy.m_status))
        {
            policies.push_back(policy);
        }
    }
    policy.m_number = 0;
    if (m_file.Look(policy.m_status))
    {
        policies.push_back(policy);
    }
    return policies;
}

void TCPolicyPlace::m_RefuseWithoutSpace() const
{
    const std::uint64_t needed = m_rules.m_minFreeMiB * BYTES_PER_MIB;
    if (needed > 0 && m_directory.FreeSpace() < needed)
    {
        throw TCFileError("less than " + std::to_string(m_rules.m_minFreeMiB) +
                              " MiB are left on its file system",
                          ENOSPC);
    }
}

std::string TCPolicyPlace::m_PutAway(const std::string& former) const
try
{
    if (m_rules.m_copies > 0)
    {
        return m_copies.Keep(former);
    }
    m_directory.Remove(former);
    return {};
}
catch (const TCFileError& error)
{
    return error.what();
}

TSReplaced TCPolicyPlace::m_ReplaceWithRecord(std::string_view text,
                                              const TRecorder& recorder) const
{
    TCRecording recording(*this, recorder);
    TSReplaced replaced = m_file.Replace(
        text, m_rules.m_isRestricted, m_rules.m_copies > 0,
        {[&](const struct stat& file) { recording.Begin(file); }, [&] { recording.Finish(); }});
    AddWarning(replaced.m_warning, recording.Warning());
    return replaced;
}

void TCPolicyPlace::m_WithRoom(std::uint64_t bytes, const std::function<void()>& step) const
{
    for (;;)
    {
        try
        {
            return step();
        }
        catch (const TCStateUnknown&)
        {
            throw;
        }
        catch (const TCFileError& error)
        {
            if (!IsFull(error.Code()) || !m_copies.MakeRoom(bytes))
            {
                throw;
            }
        }
    }
}

} // namespace qord
