// The lines about what is refused: a few of each user, and a count.
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

/// Whoever is refused again and again must not fill the log, in which the lines about others are.
/// The first five refusals of a user within a window of time have a line each; what follows is
/// counted, and has one line when the window ends. 256 users have an account of their own at a
/// time; beyond that, all others share one. Lives in the default main context, which it leaves
/// alone while there is nothing to tell.
class TCRefusalLog
{
public:
    explicit TCRefusalLog(TCUserDatabase& users, unsigned int windowSeconds = 10);
    ~TCRefusalLog();

    TCRefusalLog(const TCRefusalLog&) = delete;
    TCRefusalLog& operator=(const TCRefusalLog&) = delete;

    /// @param userId  nothing where the bus does not tell: such senders share one account
    /// @param fields  "NAME=value" each, for the journal
    void Write(const std::optional<uid_t>& userId, const std::vector<std::string>& fields,
               const std::string& line);

    /// Tells now what has been counted.
    void End();

private:
    // Who has an account: a user, or one of those.
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
