// The lines about refusals: a few for each user, and a count.
#ifndef QORD_REFUSALLOG_H
#define QORD_REFUSALLOG_H

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include "qord/UserDatabase.h"

namespace qord
{

/// A user who is refused again and again must not fill the log. The first five refusals of a user
/// within a window of time have a line each; further ones are counted, and have one line when the
/// window ends. 256 users have an account of their own at a time; all others share one. Lives in
/// the default main context, which it does not wake up while there is nothing to report.
class TCRefusalLog
{
public:
    explicit TCRefusalLog(TCUserDatabase& users, unsigned int windowSeconds = 10);
    ~TCRefusalLog();

    TCRefusalLog(const TCRefusalLog&) = delete;
    TCRefusalLog& operator=(const TCRefusalLog&) = delete;

    /// @param userId  empty if the bus does not tell; such senders share one account
    /// @param fields  "NAME=value" each, for the journal
    void Write(const std::optional<uid_t>& userId, const std::vector<std::string>& fields,
               const std::string& line);

    /// Reports the counts now.
    void End();

private:
    // The owner of an account: a user id, or one of the constants below.
    using TKey = std::int64_t;
    static constexpr TKey UNKNOWN = -1;
    static constexpr TKey OTHERS = -2;

    struct TSAccount
    {
        std::int64_t m_end = 0; ///< Microseconds of the monotonic clock.
        unsigned int m_lines = 0;
        std::uint64_t m_more = 0;
    };

    TSAccount& m_Account(TKey key, std::int64_t now);
    void m_EndThoseBefore(std::int64_t time);
    void m_Tell(TKey key, const TSAccount& account);
    void m_SetTimer(std::int64_t now);
    static int m_OnTime(void* pLog);

    TCUserDatabase& m_users;
    unsigned int m_windowSeconds;
    std::map<TKey, TSAccount> m_accounts;
    unsigned int m_timer = 0; ///< Source; 0 while nothing is to be told.
};

} // namespace qord

#endif
