// The lines about refusals: a few for each user, and a count.
#include "qord/RefusalLog.h"

#include <algorithm>
#include <limits>

#include <glib.h>

#include "qord/Report.h"

namespace qord
{
namespace
{

constexpr unsigned int MAX_LINES = 5;
constexpr std::size_t MAX_ACCOUNTS = 256;

} // namespace

TCRefusalLog::TCRefusalLog(TCUserDatabase& users, unsigned int windowSeconds)
    : m_users(users), m_windowSeconds(windowSeconds)
{
}

TCRefusalLog::~TCRefusalLog()
{
    End();
}

void TCRefusalLog::Write(const std::optional<uid_t>& userId, const std::vector<std::string>& fields,
                         const std::string& line)
{
    const std::int64_t now = g_get_monotonic_time();
    TSAccount& account = m_Account(userId ? TKey{*userId} : UNKNOWN, now);
    if (account.m_lines < MAX_LINES)
    {
        ++account.m_lines;
        ReportWithFields(true, fields, line);
        return;
    }
    ++account.m_more;
    m_SetTimer(now);
}

void TCRefusalLog::End()
{
    m_EndThoseBefore(std::numeric_limits<std::int64_t>::max());
    if (m_timer != 0)
    {
        g_source_remove(m_timer);
        m_timer = 0;
    }
}

TCRefusalLog::TSAccount& TCRefusalLog::m_Account(TKey key, std::int64_t now)
{
    auto found = m_accounts.find(key);
    if (found != m_accounts.end() && found->second.m_end > now)
    {
        return found->second;
    }
    if (found != m_accounts.end() || m_accounts.size() >= MAX_ACCOUNTS)
    {
        m_EndThoseBefore(now);
    }
    TSAccount& account = m_accounts[m_accounts.size() >= MAX_ACCOUNTS && key >= 0 ? OTHERS : key];
    account.m_end =
        account.m_end == 0 ? now + std::int64_t{m_windowSeconds} * G_USEC_PER_SEC : account.m_end;
    return account;
}

void TCRefusalLog::m_EndThoseBefore(std::int64_t time)
{
    for (auto account = m_accounts.begin(); account != m_accounts.end();)
    {
        if (account->second.m_end > time)
        {
            ++account;
            continue;
        }
        m_Tell(account->first, account->second);
        account = m_accounts.erase(account);
    }
}

void TCRefusalLog::m_Tell(TKey key, const TSAccount& account)
{
    if (account.m_more == 0)
    {
        return;
    }
    const std::string count = std::to_string(account.m_more);
    std::vector<std::string> fields = {"QOR_REFUSED=" + count};
    std::string who = key == UNKNOWN ? "senders that the bus does not know" : "other users";
    if (key >= 0)
    {
        const auto userId = static_cast<uid_t>(key);
        const auto name = m_users.UserName(userId);
        fields.push_back("QOR_SENDER_UID=" + std::to_string(userId));
        who = "user " + std::to_string(userId) + (name ? " (" + *name + ")" : "");
    }
    ReportWithFields(true, fields,
                     count + " more of " + who + " were refused in the last " +
                         std::to_string(m_windowSeconds) + " s");
}

void TCRefusalLog::m_SetTimer(std::int64_t now)
{
    if (m_timer != 0)
    {
        return;
    }
    std::int64_t end = std::numeric_limits<std::int64_t>::max();
    for (const auto& [key, account] : m_accounts)
    {
        end = account.m_more == 0 ? end : std::min(end, account.m_end);
    }
    if (end != std::numeric_limits<std::int64_t>::max())
    {
        const std::int64_t milliseconds = std::max(end - now, std::int64_t{0}) / 1000 + 1;
        m_timer = g_timeout_add(static_cast<unsigned int>(milliseconds), m_OnTime, this);
    }
}

int TCRefusalLog::m_OnTime(void* pLog)
{
    auto* pThis = static_cast<TCRefusalLog*>(pLog);
    const std::int64_t now = g_get_monotonic_time();
    pThis->m_timer = 0;
    pThis->m_EndThoseBefore(now);
    pThis->m_SetTimer(now);
    return G_SOURCE_REMOVE;
}

} // namespace qord
