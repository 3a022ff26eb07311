// A file that is replaced in one step, with a way back.
#include "qord/AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <utility>

namespace qord
{
namespace
{

constexpr mode_t g_permissionBits = 0777;

// A name in the directory that is taken back unless it is kept.
class TCPassingName
{
public:
    TCPassingName(const TCDirectory& directory, const std::string& name)
        : m_directory(directory), m_name(name)
    {
    }

    ~TCPassingName()
    {
        if (!m_isKept)
        {
            unlinkat(m_directory.Get(), m_name.c_str(), 0); // else the next Tidy does it
        }
    }

    TCPassingName(const TCPassingName&) = delete;
    TCPassingName& operator=(const TCPassingName&) = delete;

    void Keep()
    {
        m_isKept = true;
    }

private:
    const TCDirectory& m_directory;
    const std::string& m_name;
    bool m_isKept = false;
};

// The name is always the same, so that what a crash left behind is reused, not collected. Whatever
// occupies it is removed and never opened: it might be a link or a pipe.
int Create(const TCDirectory& directory, const std::string& name)
{
    directory.Remove(name);
    const int descriptor = openat(directory.Get(), name.c_str(),
                                  O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    if (descriptor < 0)
    {
        Fail("creating " + name);
    }
    return descriptor;
}

void TakeAfter(int file, const struct stat* pReplaced)
{
    // Only a privileged process may keep another owner; for the others the file is theirs.
    if (pReplaced != nullptr && fchown(file, pReplaced->st_uid, pReplaced->st_gid) != 0 &&
        errno != EPERM)
    {
        Fail("setting the owner");
    }
    if (fchmod(file, pReplaced == nullptr ? 0644 : pReplaced->st_mode & g_permissionBits) != 0)
    {
        Fail("setting the permissions");
    }
}

void Write(TCDescriptor& file, std::string_view text)
{
    for (std::size_t written = 0; written < text.size();)
    {
        const ssize_t count = write(file.Get(), text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR)
        {
            Fail("writing");
        }
        written += count < 0 ? 0 : static_cast<std::size_t>(count);
    }
    if (fsync(file.Get()) != 0)
    {
        Fail("syncing the new file");
    }
    if (!file.Close())
    {
        Fail("closing the new file");
    }
}

// Not every file system has links, and the owner of a protected file may be the only one to make
// them.
bool IsRefusedForGood(int code)
{
    return code == EPERM || code == EOPNOTSUPP || code == ENOSYS || code == EMLINK;
}

} // namespace

TCAtomicFile::TCAtomicFile(const TCDirectory& directory, std::string name)
    : m_directory(directory),
      m_name(std::move(name)),
      m_unfinished("." + m_name + ".new"),
      m_former("." + m_name + ".old")
{
}

void TCAtomicFile::Probe(bool needsFormer) const
{
    struct stat status;
    const bool isThere = Look(status);
    TCDescriptor file(Create(m_directory, m_unfinished));
    const TCPassingName unfinished(m_directory, m_unfinished);
    if (needsFormer)
    {
        m_directory.Link(isThere ? m_name : m_unfinished, m_former);
        m_directory.Remove(m_former);
    }
}

bool TCAtomicFile::Tidy() const
{
    m_directory.Remove(m_unfinished);
    struct stat former;
    if (!m_directory.Look(m_former, former))
    {
        return false;
    }
    struct stat present;
    const bool isReplaced = !m_directory.Look(m_name, present) || present.st_ino != former.st_ino ||
                            present.st_dev != former.st_dev;
    if (isReplaced && S_ISREG(former.st_mode))
    {
        return true;
    }
    m_directory.Remove(m_former);
    return false;
}

void TCAtomicFile::Replace(std::string_view text, bool needsFormer) const
{
    struct stat status;
    const bool isThere = Look(status);
    TCDescriptor file(Create(m_directory, m_unfinished));
    TCPassingName unfinished(m_directory, m_unfinished);
    TakeAfter(file.Get(), isThere ? &status : nullptr);
    Write(file, text);

    const bool isLinked = isThere && m_LinkFormer(needsFormer);
    TCPassingName former(m_directory, m_former);
    if (isLinked && needsFormer)
    {
        m_directory.Sync(); // else a crash could keep the new name and lose this one
    }
    m_directory.Rename(m_unfinished, m_name);
    unfinished.Keep();
    former.Keep();
    try
    {
        m_directory.Sync();
    }
    catch (const TCFileError& error)
    {
        m_PutBack(isThere, isLinked, error);
        throw;
    }
}

bool TCAtomicFile::Look(struct stat& status) const
{
    const bool isThere = m_directory.Look(m_name, status);
    if (isThere && !S_ISREG(status.st_mode))
    {
        throw TCFileError("it is not a regular file", EINVAL);
    }
    return isThere;
}

bool TCAtomicFile::m_LinkFormer(bool needsFormer) const
{
    try
    {
        m_directory.Link(m_name, m_former);
        return true;
    }
    catch (const TCFileError& error)
    {
        if (needsFormer || !IsRefusedForGood(error.Code()))
        {
            throw;
        }
        return false;
    }
}

// Nothing is removed where that fails: either text may be what the next start should find.
void TCAtomicFile::m_PutBack(bool isThere, bool isLinked, const TCFileError& reason) const
{
    if (isThere && !isLinked)
    {
        throw TCStateUnknown(reason.what(), reason.Code());
    }
    try
    {
        if (isThere)
        {
            m_directory.Rename(m_former, m_name);
        }
        else
        {
            m_directory.Remove(m_name);
        }
        m_directory.Sync();
    }
    catch (const TCFileError& error)
    {
        throw TCStateUnknown(std::string(reason.what()) +
                                 "; putting the old one back: " + error.what(),
                             reason.Code());
    }
}

} // namespace qord
