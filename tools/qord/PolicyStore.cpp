// Keeps the policy file, whole at every moment.
#include "qord/PolicyStore.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <utility>

#include <boost/filesystem/operations.hpp>

#include "qord/AtomicFile.h"
#include "qord/FileError.h"
#include "qord/PolicyCopies.h"

namespace qord
{
namespace
{

using boost::filesystem::path;

constexpr int g_maxLinks = 40;
constexpr std::uint64_t BYTES_PER_MIB = 1048576;

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

// The policy's directory and what stands in it, as it is now.
class TCPlace
{
public:
    TCPlace(const path& file, const TSStoreRules& rules)
        : m_rules(rules),
          m_directory(DirectoryOf(file).string()),
          m_file(m_directory, file.filename().string()),
          m_copies(m_directory, file.filename().string(), rules.m_copies)
    {
    }

    const TCDirectory& Directory() const
    {
        return m_directory;
    }

    // Ends what has been interrupted.
    void Settle() const
    {
        if (m_file.Tidy())
        {
            m_rules.m_copies > 0 ? m_copies.Keep(m_file.Former())
                                 : m_directory.Remove(m_file.Former());
        }
        m_copies.Trim();
    }

    // Before anything is made.
    void RefuseOtherThanFile() const
    {
        struct stat status;
        m_file.Look(status);
    }

    void Probe() const
    {
        m_file.Probe(m_rules.m_copies > 0);
        RefuseWithoutSpace();
    }

    void Replace(std::string_view text) const
    {
        RefuseWithoutSpace();
        try
        {
            m_file.Replace(text, m_rules.m_copies > 0);
        }
        catch (const TCStateUnknown&)
        {
            throw;
        }
        catch (const TCFileError& error)
        {
            const bool isFull = error.Code() == ENOSPC || error.Code() == EDQUOT;
            if (!isFull || !m_copies.MakeRoom())
            {
                throw;
            }
            m_file.Replace(text, m_rules.m_copies > 0);
        }
    }

    std::vector<TSStoredPolicy> List() const
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

    std::string NameOf(std::uint64_t number) const
    {
        return m_copies.NameOf(number);
    }

private:
    void RefuseWithoutSpace() const
    {
        const std::uint64_t needed = m_rules.m_minFreeMiB * BYTES_PER_MIB;
        if (needed > 0 && m_directory.FreeSpace() < needed)
        {
            throw TCFileError("less than " + std::to_string(m_rules.m_minFreeMiB) +
                                  " MiB are left on its file system",
                              ENOSPC);
        }
    }

    const TSStoreRules& m_rules;
    TCDirectory m_directory;
    TCAtomicFile m_file;
    TCPolicyCopies m_copies;
};

// Ends what has been interrupted, where nothing is kept.
void ForgetFormer(const TCDirectory& directory, const TCAtomicFile& file)
{
    if (file.Tidy())
    {
        directory.Remove(file.Former());
    }
}

// Whoever may read the service's folder cannot make it wait, or read what is not in there.
bool ReadFile(const TCDirectory& directory, const std::string& name, std::string& text,
              std::size_t maxSize, std::string& error)
{
    const TCDescriptor file(
        openat(directory.Get(), name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    char buffer[65536];
    ssize_t count = 0;
    text.clear();
    while (file.Get() >= 0 && text.size() <= maxSize &&
           (count = read(file.Get(), buffer, sizeof buffer)) > 0)
    {
        text.append(buffer, static_cast<std::size_t>(count));
    }
    if (file.Get() < 0 || count < 0)
    {
        error = errno == ENOENT ? "" : std::generic_category().message(errno);
        return false;
    }
    if (text.size() > maxSize)
    {
        error = "it is larger than " + std::to_string(maxSize) + " bytes";
        return false;
    }
    return true;
}

// The others do not: a disk that is full, or a machine that is short of something, recovers.
bool PassesByItself(int code)
{
    return code == ENOSPC || code == EDQUOT || code == EIO || code == EINTR || code == EMFILE ||
           code == ENFILE || code == ENOMEM;
}

} // namespace

TCPolicyStore::TCPolicyStore(std::string path, TSStoreRules rules)
    : m_path(std::move(path)), m_rules(rules)
{
}

std::string TCPolicyStore::Open()
try
{
    const path file = FollowLinks(m_path);
    MakeDirectory(DirectoryOf(file));
    const TCPlace place(file, m_rules);
    place.RefuseOtherThanFile();
    m_lock =
        std::make_unique<TCFileLock>(place.Directory(), "." + file.filename().string() + ".lock");
    try
    {
        place.Settle();
        place.Probe();
    }
    catch (const TCFileError& error)
    {
        if (!PassesByItself(error.Code()))
        {
            throw;
        }
        return m_path + ": " + error.what();
    }
    return {};
}
catch (const TCFileError& error)
{
    throw std::runtime_error(m_path + ": " + error.what());
}

bool TCPolicyStore::Read(std::uint64_t number, std::string& text, std::size_t maxSize,
                         std::string& error) const
try
{
    const path file = FollowLinks(m_path);
    const TCPlace place(file, m_rules);
    const std::string name = number == 0 ? file.filename().string() : place.NameOf(number);
    return ReadFile(place.Directory(), name, text, maxSize, error);
}
catch (const TCFileError& failure)
{
    error = failure.what();
    return false;
}

std::vector<TSStoredPolicy> TCPolicyStore::List() const
try
{
    return TCPlace(FollowLinks(m_path), m_rules).List();
}
catch (const TCFileError&)
{
    return {};
}

bool TCPolicyStore::ReadBeside(const std::string& suffix, std::string& text,
                               std::size_t maxSize) const
try
{
    const path file = FollowLinks(m_path);
    const TCDirectory directory(DirectoryOf(file).string());
    const std::string name = file.filename().string() + suffix;
    ForgetFormer(directory, TCAtomicFile(directory, name));
    std::string error;
    return ReadFile(directory, name, text, maxSize, error);
}
catch (const TCFileError&)
{
    return false;
}

std::string TCPolicyStore::WriteBeside(const std::string& suffix, const std::string& text) const
try
{
    const path file = FollowLinks(m_path);
    const TCDirectory directory(DirectoryOf(file).string());
    const TCAtomicFile beside(directory, file.filename().string() + suffix);
    ForgetFormer(directory, beside);
    beside.Replace(text, false);
    ForgetFormer(directory, beside);
    return {};
}
catch (const TCFileError& failure)
{
    return failure.what();
}

qor::EPolicyResult TCPolicyStore::Store(std::string_view text, std::string& error) const
{
    error.clear();
    qor::EPolicyResult result = qor::POLICY_NOT_STORED;
    try
    {
        const TCPlace place(FollowLinks(m_path), m_rules);
        place.Settle();
        place.Replace(text);
        result = qor::POLICY_STORED;
        place.Settle();
    }
    catch (const TCStateUnknown& unknown)
    {
        result = qor::POLICY_STATE_UNKNOWN;
        error = m_path + ": " + unknown.what();
    }
    catch (const TCFileError& failure)
    {
        error = m_path + ": " + failure.what();
    }
    return result;
}

} // namespace qord
