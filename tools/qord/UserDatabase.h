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

/// Asks on a thread of its own, since a database may hang for minutes. Belongs to one thread, which
/// waits for an answer no longer than it has patience, and not at all while an earlier answer is
/// still due. What does not come in time is answered with what was known last: an answer that comes
/// late is kept for the next question. The number of answers that are kept, and of questions that
/// are due, is bounded.
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

    /// The user's name, fit to be shown; the number where the database has none.
    std::optional<std::string> UserName(uid_t userId, TPatience patience = PATIENCE);

    /// The group's number alone; empty where there is no such group.
    std::optional<std::vector<gid_t>> GroupId(const std::string& name);

    /// The numbers of all groups of the user; empty where there is no such user.
    std::optional<std::vector<gid_t>> GroupsOf(uid_t userId);

    /// The user's name, or the number where that is not known.
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
