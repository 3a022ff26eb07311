// Keeps the policy file, whole at every moment.
#include "qord/PolicyStore.h"

#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

#include <boost/filesystem/path.hpp>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <qor/QORFileSystem.h>

#include "qord/PolicyCopies.h"

namespace qord
{
namespace
{

constexpr int g_maxLinks = 40;
constexpr mode_t g_permissionBits = 0777;

[[noreturn]] void Fail(const std::string& what, int errorNumber = errno)
{
    throw std::system_error(errorNumber, std::generic_category(), what);
}

class TCFile
{
public:
    explicit TCFile(int descriptor) : m_descriptor(descriptor) {}

    ~TCFile()
    {
        if (m_descriptor >= 0)
        {
            close(m_descriptor);
        }
    }

    TCFile(const TCFile&) = delete;
    TCFile& operator=(const TCFile&) = delete;

    int Get() const
    {
        return m_descriptor;
    }

    // Some file systems report a failed write only here.
    void Close()
    {
        if (close(std::exchange(m_descriptor, -1)) != 0 && errno != EINTR)
        {
            Fail("closing the new file");
        }
    }

private:
    int m_descriptor;
};

// The file beside the target that becomes the target; gone unless it did.
class TCTemporaryFile
{
public:
    // The name is always the same, so that what a crash left behind is reused, not collected.
    // Whatever occupies it is removed and never opened: it might be a link or a pipe.
    TCTemporaryFile(int directory, std::string name)
        : m_directory(directory), m_name(std::move(name)), m_file(m_Create(directory, m_name))
    {
        if (m_file.Get() < 0)
        {
            Fail("creating " + m_name);
        }
    }

    ~TCTemporaryFile()
    {
        if (!m_isPlaced)
        {
            unlinkat(m_directory, m_name.c_str(), 0);
        }
    }

    TCTemporaryFile(const TCTemporaryFile&) = delete;
    TCTemporaryFile& operator=(const TCTemporaryFile&) = delete;

    void TakeAfter(const struct stat* pReplaced)
    {
        // Only a privileged process may keep another owner; for the others the file is theirs.
        if (pReplaced != nullptr &&
            fchown(m_file.Get(), pReplaced->st_uid, pReplaced->st_gid) != 0 && errno != EPERM)
        {
            Fail("setting the owner");
        }
        const mode_t mode = pReplaced == nullptr ? 0644 : pReplaced->st_mode & g_permissionBits;
        if (fchmod(m_file.Get(), mode) != 0)
        {
            Fail("setting the permissions");
        }
    }

    void Write(const std::string& text)
    {
        for (std::size_t written = 0; written < text.size();)
        {
            const ssize_t count = write(m_file.Get(), text.data() + written, text.size() - written);
            if (count < 0 && errno != EINTR)
            {
                Fail("writing");
            }
            written += count < 0 ? 0 : static_cast<std::size_t>(count);
        }
        if (fsync(m_file.Get()) != 0)
        {
            Fail("syncing the new file");
        }
        m_file.Close();
    }

    void PlaceAs(const std::string& target)
    {
        if (renameat(m_directory, m_name.c_str(), m_directory, target.c_str()) != 0)
        {
            Fail("replacing the file");
        }
        m_isPlaced = true;
    }

private:
    static int m_Create(int directory, const std::string& name)
    {
        unlinkat(directory, name.c_str(), 0);
        return openat(directory, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                      0600);
    }

    int m_directory;
    std::string m_name;
    TCFile m_file;
    bool m_isPlaced = false;
};

std::string ReadLink(const std::string& path)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(path.c_str(), target, sizeof target);
    if (length < 0)
    {
        return {};
    }
    return std::string(target, static_cast<std::size_t>(length));
}

// Follows links also to a file that does not exist yet.
boost::filesystem::path FollowLinks(boost::filesystem::path path)
{
    for (int links = 0; links < g_maxLinks; ++links)
    {
        const std::string target = ReadLink(path.string());
        if (target.empty())
        {
            return path;
        }
        path = path.parent_path() / target;
        if (target.front() == '/')
        {
            path = target;
        }
    }
    Fail("following its links", ELOOP);
}

// Null when there is nothing to replace.
const struct stat* LookAtTarget(int directory, const std::string& name, struct stat& status)
{
    if (fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
    {
        if (errno == ENOENT)
        {
            return nullptr;
        }
        Fail("looking at the file");
    }
    if (!S_ISREG(status.st_mode))
    {
        Fail("replacing what is not a regular file", EINVAL);
    }
    return &status;
}

boost::filesystem::path Directory(const boost::filesystem::path& file)
{
    return file.has_parent_path() ? file.parent_path() : ".";
}

void Replace(const boost::filesystem::path& target, const std::string& text)
{
    const std::string name = target.filename().string();
    const std::string parent = Directory(target).string();
    // All steps are taken in the directory opened here, whatever happens to its path meanwhile.
    const TCFile directory(open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.Get() < 0)
    {
        Fail("opening the directory " + parent);
    }
    struct stat status;
    const struct stat* pReplaced = LookAtTarget(directory.Get(), name, status);
    TCTemporaryFile temporary(directory.Get(), "." + name + ".new");
    temporary.TakeAfter(pReplaced);
    temporary.Write(text);
    temporary.PlaceAs(name);
    // A file system that cannot sync directories says EINVAL; there is nothing more to be had.
    if (fsync(directory.Get()) != 0 && errno != EINVAL)
    {
        Fail("syncing the directory");
    }
}

void RefuseWithoutSpace(const boost::filesystem::path& target, int minFreeMiB)
{
    if (minFreeMiB > 0 && qor::TSFileSystem::GetFreeSpaceSize(Directory(target)) < minFreeMiB)
    {
        Fail("less than " + std::to_string(minFreeMiB) + " MiB are left", ENOSPC);
    }
}

} // namespace

TCPolicyStore::TCPolicyStore(std::string path, TSStoreRules rules)
    : m_path(std::move(path)), m_rules(rules)
{
}

void TCPolicyStore::MakeDirectory() const
{
    const boost::filesystem::path directory = boost::filesystem::path(m_path).parent_path();
    if (!directory.empty())
    {
        qor::TSFileSystem::MakeDir(directory, false);
    }
}

bool TCPolicyStore::Store(const std::string& text, std::string& error) const
{
    try
    {
        m_Store(text);
        return true;
    }
    catch (const std::system_error& exception)
    {
        error = m_path + ": " + exception.what();
        return false;
    }
}

void TCPolicyStore::m_Store(const std::string& text) const
{
    const boost::filesystem::path target = FollowLinks(m_path);
    RefuseWithoutSpace(target, m_rules.m_minFreeMiB);

    const TCPolicyCopies copies(target, m_rules.m_copies);
    boost::filesystem::path copy;
    if (!copies.Keep(copy))
    {
        Fail("keeping a copy of the old policy", EIO);
    }
    try
    {
        Replace(target, text);
    }
    catch (const std::system_error&)
    {
        copies.Drop(copy);
        throw;
    }
    copies.RemoveOld();
}

} // namespace qord
