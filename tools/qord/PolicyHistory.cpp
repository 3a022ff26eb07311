// What the service remembers of the policies: who set them, and their hashes.
#include "qord/PolicyHistory.h"

#include <algorithm>
#include <utility>

#include <nlohmann/json.hpp>

#include "common/Text.h"

namespace qord
{
namespace
{

using TJson = nlohmann::json;

constexpr char SUFFIX[] = ".history";
constexpr std::size_t MAX_POLICY_SIZE = std::size_t{64} * 1024 * 1024; // more fits into no message
constexpr std::size_t MAX_SIZE = std::size_t{1024} * 1024;

TJson ToJson(const std::optional<TSSender>& setter)
{
    if (!setter)
    {
        return nullptr;
    }
    return {{"user_id", setter->m_userId},
            {"user", setter->m_userName},
            {"process_id", setter->m_processId},
            {"program", setter->m_program}};
}

std::optional<TSSender> SetterOf(const TJson& json)
{
    if (json.is_null())
    {
        return std::nullopt;
    }
    TSSender setter;
    setter.m_userId = json.at("user_id").get<uid_t>();
    setter.m_userName = json.at("user").get<std::string>();
    setter.m_processId = json.at("process_id").get<pid_t>();
    setter.m_program = json.at("program").get<std::string>();
    return setter;
}

} // namespace

void TCPolicyHistory::Load(const TCPolicyStore& store)
try
{
    m_records.clear();
    std::string text;
    if (!store.ReadBeside(SUFFIX, text, MAX_SIZE))
    {
        return;
    }
    for (const TJson& json : TJson::parse(text))
    {
        TSRecord record;
        record.m_inode = json.at("inode").get<std::uint64_t>();
        record.m_size = json.at("bytes").get<std::int64_t>();
        record.m_written = json.at("written_ns").get<std::int64_t>();
        record.m_entry = {json.at("sha256").get<std::string>(), SetterOf(json.at("set_by"))};
        m_records.push_back(std::move(record));
    }
}
catch (const TJson::exception&)
{
    m_records.clear();
}

std::string TCPolicyHistory::Remember(const TCPolicyStore& store, const std::string& sha256,
                                      const std::optional<TSSender>& setter)
{
    std::vector<TSRecord> present;
    for (const TSStoredPolicy& policy : store.List())
    {
        const TSRecord* pKnown = m_Find(policy);
        if (policy.m_number == 0)
        {
            present.push_back(m_RecordOf(policy));
            present.back().m_entry = {sha256, setter};
        }
        else if (pKnown != nullptr)
        {
            present.push_back(*pKnown);
        }
    }
    m_records = std::move(present);
    return store.WriteBeside(SUFFIX, m_ToText());
}

TCPolicyHistory::TSEntry TCPolicyHistory::Find(const TCPolicyStore& store,
                                               const TSStoredPolicy& policy)
{
    if (const TSRecord* pKnown = m_Find(policy))
    {
        return pKnown->m_entry;
    }
    TSRecord record = m_RecordOf(policy);
    std::string text;
    std::string error;
    if (store.Read(policy.m_number, text, MAX_POLICY_SIZE, error))
    {
        record.m_entry.m_sha256 = tools::Sha256(text);
        m_records.push_back(record);
    }
    return record.m_entry;
}

TCPolicyHistory::TSRecord TCPolicyHistory::m_RecordOf(const TSStoredPolicy& policy)
{
    constexpr std::int64_t nanoseconds = 1000000000;
    const struct stat& status = policy.m_status;
    TSRecord record;
    record.m_inode = status.st_ino;
    record.m_size = status.st_size;
    record.m_written = status.st_mtim.tv_sec * nanoseconds + status.st_mtim.tv_nsec;
    return record;
}

TCPolicyHistory::TSRecord* TCPolicyHistory::m_Find(const TSStoredPolicy& policy)
{
    const TSRecord wanted = m_RecordOf(policy);
    const auto found = std::find_if(m_records.begin(), m_records.end(),
                                    [&wanted](const TSRecord& record)
                                    {
                                        return record.m_inode == wanted.m_inode &&
                                               record.m_size == wanted.m_size &&
                                               record.m_written == wanted.m_written;
                                    });
    return found == m_records.end() ? nullptr : &*found;
}

std::string TCPolicyHistory::m_ToText() const
{
    TJson all = TJson::array();
    for (const TSRecord& record : m_records)
    {
        all.push_back({{"inode", record.m_inode},
                       {"bytes", record.m_size},
                       {"written_ns", record.m_written},
                       {"sha256", record.m_entry.m_sha256},
                       {"set_by", ToJson(record.m_entry.m_setter)}});
    }
    return all.dump(1) + '\n';
}

} // namespace qord
