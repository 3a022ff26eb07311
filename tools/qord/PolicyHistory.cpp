// The record of the policies: the users who have set them, and their hashes.
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
    if (!store.ReadRecord(text, MAX_SIZE))
    {
        return;
    }
    for (const TJson& json : TJson::parse(text))
    {
        TSRecord record;
        record.m_inode = json.at("inode").get<std::uint64_t>();
        record.m_size = json.at("bytes").get<std::int64_t>();
        record.m_written = json.at("written").get<std::int64_t>();
        record.m_nanoseconds = json.at("written_ns").get<std::int64_t>();
        record.m_entry = {json.at("sha256").get<std::string>(), SetterOf(json.at("set_by"))};
        m_records.push_back(std::move(record));
    }
}
catch (const TJson::exception&)
{
    m_records.clear();
}

std::string TCPolicyHistory::Remember(const TCPolicyStore& store, const struct stat& file,
                                      const std::string& sha256,
                                      const std::optional<TSSender>& setter)
{
    std::vector<TSRecord> present;
    for (const TSStoredPolicy& policy : store.List())
    {
        const TSEntry entry = Find(store, policy);
        if (!entry.m_sha256.empty())
        {
            present.push_back(m_RecordOf(policy.m_status));
            present.back().m_entry = entry;
        }
    }
    present.push_back(m_RecordOf(file));
    present.back().m_entry = {sha256, setter};
    m_records = std::move(present);
    return m_ToText();
}

TCPolicyHistory::TSEntry TCPolicyHistory::Find(const TCPolicyStore& store,
                                               const TSStoredPolicy& policy)
{
    TSRecord record = m_RecordOf(policy.m_status);
    if (const TSRecord* pKnown = m_FindFile(record))
    {
        return pKnown->m_entry;
    }
    std::string text;
    std::string error;
    if (store.Read(policy.m_number, text, MAX_POLICY_SIZE, error))
    {
        record.m_entry.m_sha256 = tools::Sha256(text);
        if (const TSRecord* pKnown = m_FindText(record))
        {
            record.m_entry = pKnown->m_entry;
        }
        m_records.push_back(record);
    }
    return record.m_entry;
}

// A policy that another program has put there has no known user.
bool TCPolicyHistory::HasStored(const std::string& sha256) const
{
    return std::any_of(m_records.begin(), m_records.end(),
                       [&sha256](const TSRecord& record)
                       { return record.m_entry.m_setter && record.m_entry.m_sha256 == sha256; });
}

TCPolicyHistory::TSRecord TCPolicyHistory::m_RecordOf(const struct stat& file)
{
    TSRecord record;
    record.m_inode = file.st_ino;
    record.m_size = file.st_size;
    record.m_written = file.st_mtim.tv_sec;
    record.m_nanoseconds = file.st_mtim.tv_nsec;
    return record;
}

const TCPolicyHistory::TSRecord* TCPolicyHistory::m_FindFile(const TSRecord& wanted) const
{
    const auto found = std::find_if(m_records.begin(), m_records.end(),
                                    [&wanted](const TSRecord& record)
                                    {
                                        return record.m_inode == wanted.m_inode &&
                                               record.m_size == wanted.m_size &&
                                               record.m_written == wanted.m_written &&
                                               record.m_nanoseconds == wanted.m_nanoseconds;
                                    });
    return found == m_records.end() ? nullptr : &*found;
}

const TCPolicyHistory::TSRecord* TCPolicyHistory::m_FindText(const TSRecord& wanted) const
{
    const auto found = std::find_if(m_records.begin(), m_records.end(),
                                    [&wanted](const TSRecord& record)
                                    {
                                        return record.m_entry.m_sha256 == wanted.m_entry.m_sha256 &&
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
                       {"written", record.m_written},
                       {"written_ns", record.m_nanoseconds},
                       {"sha256", record.m_entry.m_sha256},
                       {"set_by", ToJson(record.m_entry.m_setter)}});
    }
    return all.dump(1) + '\n';
}

} // namespace qord
