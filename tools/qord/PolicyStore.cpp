// Keeps the policy file, whole at every moment.
#include "qord/PolicyStore.h"

#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <utility>

#include <boost/filesystem/operations.hpp>

#include "qord/FileError.h"

namespace qord
{
namespace
{

using boost::filesystem::path;

constexpr int g_maxLinks = 40;

// Empty when it is no link.
std::string ReadLink(const std::string& link)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(link.c_str(), target, sizeof target);
    if (length >= 0)
    {
        return std::string(target, static_cast<std::size_t>(length));
    }
    if (errno != EINVAL && errno != ENOENT)
    {
        Fail("looking for links");
    }
    return {};
}

// Follows links also to a file that does not exist yet.
path FollowLinks(path file)
{
    for (int links = 0; links < g_maxLinks; ++links)
    {
        const std::string target = ReadLink(file.string());
        if (target.empty())
        {
            return file;
        }
        file = target.front() == '/' ? path(target) : file.parent_path() / target;
    }
    Fail("following its links", ELOOP);
}

path DirectoryOf(const path& file)
{
    return file.has_parent_path() ? file.parent_path() : ".";
}

// A file in a directory whose own name is not on the disk would be lost with it.
void MakeDirectory(const path& directory)
{
    path made;
    for (const path& part : directory)
    {
        made /= part;
        boost::system::error_code error;
        if (boost::filesystem::is_directory(made, error))
        {
            continue;
        }
        if (mkdir(made.c_str(), 0755) != 0 && errno != EEXIST)
        {
            Fail("creating the directory " + made.string());
        }
        TCDirectory(DirectoryOf(made).string()).Sync();
    }
}

// After the other errors the service goes on: a disk that is full or was mounted read-only, or a
// machine that lacks memory, may recover, and the stored policy can be read meanwhile.
bool PassesByItself(int code)
{
    return IsFull(code) || code == EROFS || code == EIO || code == EINTR || code == EMFILE ||
           code == ENFILE || code == ENOMEM;
}

} // namespace

TCPolicyStore::TCPolicyStore(std::string path, TSStoreRules rules)
    : m_path(std::move(path)), m_rules(rules)
{
}

std::string TCPolicyStore::Open(std::string& warning)
try
{
    warning.clear();
    const path file = FollowLinks(m_path);
    MakeDirectory(DirectoryOf(file));
    const TCPolicyPlace place(file, m_rules);
    place.RefuseOtherThanFile();
    m_TakeLock(place);
    warning = place.Settle();
    AddWarning(warning, place.Restrict());
    place.Probe();
    return {};
}
catch (const TCFileError& error)
{
    std::string reason = m_path + ": " + error.what();
    if (!PassesByItself(error.Code()))
    {
        throw std::runtime_error(reason);
    }
    return reason;
}

std::string TCPolicyStore::WhyNotNow() const
try
{
    TCPolicyPlace(FollowLinks(m_path), m_rules).RefuseWithoutRoom();
    return {};
}
catch (const TCFileError& error)
{
    return m_path + ": " + error.what();
}

bool TCPolicyStore::Read(std::uint64_t number, std::string& text, std::size_t maxSize,
                         std::string& error) const
try
{
    const TCPolicyPlace place(FollowLinks(m_path), m_rules);
    return place.Directory().Read(place.NameOf(number), text, maxSize, error);
}
catch (const TCFileError& failure)
{
    error = failure.what();
    return false;
}

std::vector<TSStoredPolicy> TCPolicyStore::List() const
try
{
    return TCPolicyPlace(FollowLinks(m_path), m_rules).List();
}
catch (const TCFileError&)
{
    return {};
}

bool TCPolicyStore::ReadRecord(std::string& text, std::size_t maxSize) const
try
{
    const TCPolicyPlace place(FollowLinks(m_path), m_rules);
    std::string error;
    return place.Directory().Read(place.RecordName(), text, maxSize, error);
}
catch (const TCFileError&)
{
    return false;
}

TSStoreOutcome TCPolicyStore::Store(std::string_view text, const TRecorder& recorder)
{
    TSStoreOutcome outcome;
    try
    {
        const TCPolicyPlace place(FollowLinks(m_path), m_rules);
        m_TakeLock(place);
        std::string warning = place.Settle();
        outcome.m_wasInForce = place.IsInForce(text);
        if (!outcome.m_wasInForce)
        {
            AddWarning(warning, place.Replace(text, recorder));
        }
        outcome.m_words = warning;
        outcome.m_result = qor::POLICY_STORED;
    }
    catch (const TCStateUnknown& unknown)
    {
        outcome.m_result = qor::POLICY_STATE_UNKNOWN;
        outcome.m_words = m_path + ": " + unknown.what();
    }
    catch (const TCFileError& failure)
    {
        outcome.m_words = m_path + ": " + failure.what();
    }
    return outcome;
}

// A link may have been turned, and a directory made anew, since the last time: then the lock is one
// of a file that this process no longer keeps.
void TCPolicyStore::m_TakeLock(const TCPolicyPlace& place)
{
    const std::string name = "." + place.FileName() + ".lock";
    if (!m_lock || !m_lock->IsOf(place.Directory(), name))
    {
        m_lock = std::make_unique<TCFileLock>(place.Directory(), name);
    }
}

} // namespace qord
