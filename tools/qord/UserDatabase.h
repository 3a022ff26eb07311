// Questions to the user database, which may be far away.
#ifndef QORD_USERDATABASE_H
#define QORD_USERDATABASE_H

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/types.h>

namespace qord
{

/// Asks the database on an extra thread, because a database may hang for minutes. Belongs to one
/// thread, which waits for an answer for its patience at most, and not at all while an earlier
/// answer has not come. Without an answer in time it returns the last known one; a late answer is
/// kept for the next question. The number of kept answers and of open questions is limited.
class TCUserDatabase
{
public:
    using TPatience = std::chrono::milliseconds;
    static constexpr TPatience PATIENCE{100};

    TCUserDatabase();
    /// Leaves a question that hangs to itself.
    ~TCUserDatabase();

    TCUserDatabase(const TCUserDatabase&) = delete;
    TCUserDatabase& operator=(const TCUserDatabase&) = delete;

    // Nothing, in each of them: the database does not answer now, and has not before.

    /// The user's name in printable characters; the number if the database has no name.
    std::optional<std::string> UserName(uid_t userId, TPatience patience = PATIENCE);

    /// Only the group's number; an empty list if there is no such group.
    std::optional<std::vector<gid_t>> GroupId(const std::string& name);

    /// The numbers of all groups of the user; an empty list if there is no such user.
    std::optional<std::vector<gid_t>> GroupsOf(uid_t userId);

    /// The user's name, or the number if the name is not known.
    std::string NameOrNumber(uid_t userId);

private:
    struct TSQuestion;
    struct TSAnswer;
    class TCDesk;

    std::optional<TSAnswer> m_Ask(const TSQuestion& question, TPatience patience);

    std::shared_ptr<TCDesk> m_desk; ///< Also held by the thread, which may be left behind.
    std::thread m_thread;           ///< From the first question on.
};

} // namespace qord

#endif
