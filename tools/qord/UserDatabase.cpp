// Questions to the user database, which may be far away.
#include "qord/UserDatabase.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <map>
#include <system_error>
#include <tuple>
#include <utility>

#include <qor/Mutex.h>

#include "common/Text.h"

namespace qord
{
namespace
{

constexpr std::size_t MAX_DUE = 32;
constexpr std::size_t MAX_ANSWERS = 256;

// For a condition, too, which opens and closes it.
class QOR_SCOPED_CAPABILITY TCLock
{
public:
    explicit TCLock(qor::TCMutex& mutex) QOR_ACQUIRE(mutex) : m_mutex(mutex)
    {
        m_mutex.lock();
    }
    ~TCLock() QOR_RELEASE()
    {
        m_mutex.unlock();
    }

    TCLock(const TCLock&) = delete;
    TCLock& operator=(const TCLock&) = delete;

    void lock() QOR_ACQUIRE() // NOLINT(readability-identifier-naming): the standard's name
    {
        m_mutex.lock();
    }
    void unlock() QOR_RELEASE() // NOLINT(readability-identifier-naming)
    {
        m_mutex.unlock();
    }

private:
    qor::TCMutex& m_mutex;
};

std::vector<gid_t> LookUpGroup(const std::string& name)
{
    group entry = {};
    group* pFound = nullptr;
    std::vector<char> buffer(4096); // a group may have any number of members
    while (getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &pFound) == ERANGE)
    {
        buffer.resize(buffer.size() * 2);
    }
    return pFound == nullptr ? std::vector<gid_t>() : std::vector<gid_t>{entry.gr_gid};
}

std::vector<gid_t> LookUpGroupsOf(uid_t userId)
{
    passwd entry = {};
    passwd* pFound = nullptr;
    char buffer[4096];
    getpwuid_r(userId, &entry, buffer, sizeof buffer, &pFound);
    if (pFound == nullptr)
    {
        return {};
    }
    int count = 64;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    while (getgrouplist(entry.pw_name, entry.pw_gid, groups.data(), &count) < 0)
    {
        groups.resize(static_cast<std::size_t>(count));
    }
    groups.resize(static_cast<std::size_t>(count));
    return groups;
}

} // namespace

struct TCUserDatabase::TSQuestion
{
    enum class EWhat
    {
        NAME,
        GROUP,
        GROUPS_OF_USER
    };

    EWhat m_what;
    uid_t m_userId;
    std::string m_group;

    bool operator<(const TSQuestion& other) const
    {
        return std::tie(m_what, m_userId, m_group) <
               std::tie(other.m_what, other.m_userId, other.m_group);
    }
};

struct TCUserDatabase::TSAnswer
{
    std::string m_name;
    std::vector<gid_t> m_groups;
    std::uint64_t m_number = 0; ///< The later the higher.
};

// Where questions wait, and answers.
class TCUserDatabase::TCDesk
{
public:
    std::optional<TSAnswer> Ask(const TSQuestion& question, TPatience patience)
        QOR_EXCLUDES(m_mutex)
    {
        const auto end = std::chrono::steady_clock::now() + patience;
        TCLock lock(m_mutex);
        const bool isFree = m_due.empty();
        const bool isDue = std::any_of(m_due.begin(), m_due.end(),
                                       [&question](const auto& due)
                                       { return !(due < question) && !(question < due); });
        if (!isDue && m_due.size() < MAX_DUE)
        {
            m_due.push_back(question);
            m_changed.notify_all();
        }
        while (isFree && !m_due.empty() &&
               m_changed.wait_until(lock, end) == std::cv_status::no_timeout)
        {
        }
        const auto found = m_answers.find(question);
        return found == m_answers.end() ? std::nullopt : std::optional<TSAnswer>(found->second);
    }

    // The thread's work.
    void Serve() QOR_EXCLUDES(m_mutex)
    {
        TCLock lock(m_mutex);
        while (!m_isClosed)
        {
            if (m_due.empty())
            {
                m_changed.wait(lock);
                continue;
            }
            const TSQuestion question = m_due.front();
            lock.unlock();
            std::optional<TSAnswer> answer = LookUp(question);
            lock.lock();
            if (answer)
            {
                m_Keep(question, std::move(*answer));
            }
            m_due.pop_front();
            m_changed.notify_all();
        }
        m_isServed = false;
        m_changed.notify_all();
    }

    // @return whether the thread has ended
    bool Close(TPatience patience) QOR_EXCLUDES(m_mutex)
    {
        const auto end = std::chrono::steady_clock::now() + patience;
        TCLock lock(m_mutex);
        m_isClosed = true;
        m_changed.notify_all();
        while (m_isServed && m_changed.wait_until(lock, end) == std::cv_status::no_timeout)
        {
        }
        return !m_isServed;
    }

private:
    // Empty if there is no memory for the answer.
    static std::optional<TSAnswer> LookUp(const TSQuestion& question) noexcept
    try
    {
        TSAnswer answer;
        switch (question.m_what)
        {
        case TSQuestion::EWhat::NAME:
            answer.m_name = tools::UserName(question.m_userId);
            break;
        case TSQuestion::EWhat::GROUP:
            answer.m_groups = LookUpGroup(question.m_group);
            break;
        case TSQuestion::EWhat::GROUPS_OF_USER:
            answer.m_groups = LookUpGroupsOf(question.m_userId);
            break;
        }
        return answer;
    }
    catch (const std::exception&)
    {
        return std::nullopt;
    }

    void m_Keep(const TSQuestion& question, TSAnswer answer) QOR_REQUIRES(m_mutex)
    {
        if (m_answers.size() >= MAX_ANSWERS && m_answers.count(question) == 0)
        {
            m_answers.erase(
                std::min_element(m_answers.begin(), m_answers.end(),
                                 [](const auto& left, const auto& right)
                                 { return left.second.m_number < right.second.m_number; }));
        }
        answer.m_number = ++m_numberOfAnswers;
        m_answers[question] = std::move(answer);
    }

    qor::TCMutex m_mutex;
    std::condition_variable_any m_changed;
    std::deque<TSQuestion> m_due QOR_GUARDED_BY(m_mutex); ///< The first one is being asked.
    std::map<TSQuestion, TSAnswer> m_answers QOR_GUARDED_BY(m_mutex);
    std::uint64_t m_numberOfAnswers QOR_GUARDED_BY(m_mutex) = 0;
    bool m_isServed QOR_GUARDED_BY(m_mutex) = true;
    bool m_isClosed QOR_GUARDED_BY(m_mutex) = false;
};

TCUserDatabase::TCUserDatabase() : m_desk(std::make_shared<TCDesk>()) {}

TCUserDatabase::~TCUserDatabase()
{
    if (!m_thread.joinable())
    {
        return;
    }
    if (m_desk->Close(PATIENCE))
    {
        m_thread.join();
    }
    else
    {
        m_thread.detach();
    }
}

std::optional<TCUserDatabase::TSAnswer> TCUserDatabase::m_Ask(const TSQuestion& question,
                                                              TPatience patience)
{
    if (!m_thread.joinable())
    {
        try
        {
            m_thread = std::thread([desk = m_desk] { desk->Serve(); });
        }
        catch (const std::system_error&)
        {
            return std::nullopt; // no thread can be had: the next question tries again
        }
    }
    return m_desk->Ask(question, patience);
}

std::optional<std::string> TCUserDatabase::UserName(uid_t userId, TPatience patience)
{
    const auto answer = m_Ask({TSQuestion::EWhat::NAME, userId, ""}, patience);
    return answer ? std::optional<std::string>(answer->m_name) : std::nullopt;
}

std::optional<std::vector<gid_t>> TCUserDatabase::GroupId(const std::string& name)
{
    const auto answer = m_Ask({TSQuestion::EWhat::GROUP, 0, name}, PATIENCE);
    return answer ? std::optional<std::vector<gid_t>>(answer->m_groups) : std::nullopt;
}

std::optional<std::vector<gid_t>> TCUserDatabase::GroupsOf(uid_t userId)
{
    const auto answer = m_Ask({TSQuestion::EWhat::GROUPS_OF_USER, userId, ""}, PATIENCE);
    return answer ? std::optional<std::vector<gid_t>>(answer->m_groups) : std::nullopt;
}

std::string TCUserDatabase::NameOrNumber(uid_t userId)
{
    return UserName(userId).value_or(std::to_string(userId));
}

} // namespace qord
