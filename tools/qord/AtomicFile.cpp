// A file that is replaced in one step, with a way back.
#include "qord/AtomicFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <utility>

#include "common/Text.h"
#include "qord/FileRights.h"

namespace qord
{
namespace
{

// Of a file's number, in digits.
constexpr std::size_t MAX_NUMBER_LENGTH = 20;

// The begin of a name that still fits with a number behind it; a long one is told by its hash.
std::string UnfinishedStart(const std::string& name)
{
    constexpr char end[] = ".new-";
    const bool fits = name.size() + sizeof end + MAX_NUMBER_LENGTH <= NAME_MAX;
    return "." + (fits ? name : tools::Sha256(name)) + end;
}

// The name is always the same, so that files of crashes do not pile up. A file with this name is
// removed, never opened, because it might be a link or a pipe.
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

struct stat Write(const TCDescriptor& file, std::string_view text)
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
    struct stat status;
    if (fstat(file.Get(), &status) != 0)
    {
        Fail("looking at the new file");
    }
    return status;
}

void SyncAndClose(TCDescriptor& file)
{
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
bool HasNoLinks(int code)
{
    return code == EPERM || code == EOPNOTSUPP || code == ENOSYS || code == EMLINK ||
           code == EEXIST;
}

} // namespace

// A name in the directory that is taken back unless it is kept.
class TCAtomicFile::TCPassingName
{
public:
    TCPassingName(const TCDirectory& directory, std::string name)
        : m_directory(directory), m_name(std::move(name))
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

    const std::string& Get() const
    {
        return m_name;
    }

    std::string Keep()
    {
        m_isKept = true;
        return m_name;
    }

private:
    const TCDirectory& m_directory;
    std::string m_name;
    bool m_isKept = false;
};

TCAtomicFile::TCAtomicFile(const TCDirectory& directory, std::string name)
    : m_directory(directory),
      m_name(std::move(name)),
      m_unfinished(UnfinishedStart(m_name)),
      m_former("." + m_name + ".old")
{
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

void TCAtomicFile::Probe() const
{
    struct stat status;
    const bool isThere = Look(status);
    const TCPassingName unfinished(m_directory, m_UnfinishedName(isThere ? &status : nullptr));
    const TCDescriptor file(Create(m_directory, unfinished.Get()));
}

std::vector<std::string> TCAtomicFile::Tidy(std::string& warning) const
{
    struct stat present;
    const bool isThere = m_directory.Look(m_name, present);
    std::vector<std::string> formers;
    for (const std::string& name : m_directory.List())
    {
        struct stat status;
        const bool isUnfinished = name.compare(0, m_unfinished.size(), m_unfinished) == 0;
        if ((!isUnfinished && name != m_former) || !m_directory.Look(name, status))
        {
            continue;
        }
        const bool isFormer = S_ISREG(status.st_mode) &&
                              !(isThere && status.st_ino == present.st_ino) &&
                              (!isUnfinished || name == m_UnfinishedName(&status));
        try
        {
            if (isFormer)
            {
                formers.push_back(name);
            }
            else
            {
                m_directory.Remove(name);
            }
        }
        catch (const TCFileError& error)
        {
            AddWarning(warning, error.what());
        }
    }
    return formers;
}

TSReplaced TCAtomicFile::Replace(std::string_view text, bool isRestricted, bool needsFormer,
                                 const TSSteps& steps) const
{
    struct stat status;
    const bool isThere = Look(status);
    const struct stat* pReplaced = isThere ? &status : nullptr;
    TSReplaced replaced;
    TCPassingName unfinished(m_directory, m_UnfinishedName(pReplaced));
    TCDescriptor file(Create(m_directory, unfinished.Get()));
    replaced.m_warning = TakeRights(m_directory, file.Get(), m_name, pReplaced, isRestricted);
    steps.m_onWritten(Write(file, text));
    SyncAndClose(file);
    steps.m_onDisk();
    if (!isThere)
    {
        m_directory.Rename(unfinished.Get(), m_name);
        m_SyncOrTakeBack(unfinished, [this] { m_directory.Remove(m_name); });
        return replaced;
    }
    replaced.m_former = m_directory.Exchange(unfinished.Get(), m_name)
                            ? m_Swap(unfinished)
                            : m_LinkAndRename(unfinished, needsFormer);
    if (needsFormer && replaced.m_former.empty())
    {
        AddWarning(replaced.m_warning, "the replaced policy is not kept: names can neither be "
                                       "exchanged nor linked here");
    }
    return replaced;
}

// The name has the number of the file to be replaced, which tells a new file from a replaced one. A
// file system such as FAT numbers its files anew each time it is mounted: after a loss of power at
// the wrong moment, an old file is then taken for an unfinished new one.
std::string TCAtomicFile::m_UnfinishedName(const struct stat* pReplaced) const
{
    return m_unfinished + std::to_string(pReplaced == nullptr ? 0 : pReplaced->st_ino);
}

// @return the path of the old file
std::string TCAtomicFile::m_Swap(TCPassingName& unfinished) const
{
    m_SyncOrTakeBack(unfinished,
                     [this, &unfinished]
                     {
                         if (!m_directory.Exchange(unfinished.Get(), m_name))
                         {
                             throw TCFileError("the names cannot be exchanged again", EPERM);
                         }
                     });
    return unfinished.Keep();
}

std::string TCAtomicFile::m_LinkAndRename(TCPassingName& unfinished, bool needsFormer) const
{
    const bool isLinked = m_LinkFormer();
    TCPassingName former(m_directory, isLinked ? m_former : unfinished.Get());
    if (isLinked && needsFormer)
    {
        m_directory.Sync(); // else a crash could keep the new name and lose this one
    }
    m_directory.Rename(unfinished.Get(), m_name);
    m_SyncOrTakeBack(former,
                     [this, isLinked]
                     {
                         if (!isLinked)
                         {
                             throw TCFileError("it has no other name", EPERM);
                         }
                         m_directory.Rename(m_former, m_name);
                     });
    return isLinked ? former.Keep() : "";
}

bool TCAtomicFile::m_LinkFormer() const
{
    try
    {
        m_directory.Link(m_name, m_former);
        return true;
    }
    catch (const TCFileError& error)
    {
        if (!HasNoLinks(error.Code()))
        {
            throw;
        }
        return false;
    }
}

// If that fails, nothing is removed, because the next start may find either text.
void TCAtomicFile::m_SyncOrTakeBack(TCPassingName& name,
                                    const std::function<void()>& takeBack) const
{
    try
    {
        m_directory.Sync();
    }
    catch (const TCFileError& reason)
    {
        try
        {
            takeBack();
            m_directory.Sync();
        }
        catch (const TCFileError& error)
        {
            name.Keep();
            throw TCStateUnknown(std::string(reason.what()) +
                                     "; putting the old one back: " + error.what(),
                                 reason.Code());
        }
        throw;
    }
}

TCPlainReplacement::TCPlainReplacement(const TCDirectory& directory, std::string name,
                                       std::string_view text, bool isRestricted)
    : m_directory(directory),
      m_name(std::move(name)),
      m_unfinished("." + m_name + ".new"),
      m_file(Create(directory, m_unfinished))
{
    TakeRights(m_directory, m_file.Get(), m_name, nullptr, isRestricted);
    Write(m_file, text);
    // A hint: if the file has its blocks before the next sync of another file, the journal writes
    // both at once, and Finish has little left to do.
    sync_file_range(m_file.Get(), 0, 0, SYNC_FILE_RANGE_WRITE);
}

void TCPlainReplacement::Finish()
{
    SyncAndClose(m_file);
    m_directory.Rename(m_unfinished, m_name);
}

} // namespace qord
