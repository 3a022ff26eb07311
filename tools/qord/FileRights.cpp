// Owner, group and rights of a new file.
#include "qord/FileRights.h"

#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

#include "qord/FileError.h"

namespace qord
{
namespace
{

constexpr mode_t FIRST_MODE = 0644;
constexpr mode_t PERMISSIONS = 0777;
constexpr mode_t OTHERS = 07;
constexpr mode_t GROUP = 070;
constexpr int GROUP_SHIFT = 3;

constexpr char ACCESS_LIST[] = "system.posix_acl_access";
constexpr std::size_t MAX_LIST_SIZE = 65536; // as the kernel has it

// How the kernel hands out an access list: four bytes of version, then entries of eight, whose
// first two are the kind and whose next two are the rights, the lower byte first.
constexpr std::size_t LIST_START = 4, ENTRY_SIZE = 8, RIGHTS_AT = 2;
constexpr unsigned char OWNING_GROUP = 0x04;

struct TSAccessList
{
    std::vector<unsigned char> m_bytes; ///< Empty: there is none.
    bool m_isKnown = true;
};

// Asked by name: that takes no right to read the file.
TSAccessList ReadAccessList(const TCDirectory& directory, const std::string& name)
{
    TSAccessList list;
    list.m_bytes.resize(MAX_LIST_SIZE);
    const ssize_t size = lgetxattr(directory.PathOf(name).c_str(), ACCESS_LIST, list.m_bytes.data(),
                                   list.m_bytes.size());
    list.m_isKnown = size >= 0 || errno == ENODATA || errno == EOPNOTSUPP;
    list.m_bytes.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return list;
}

void SetGroupsRights(std::vector<unsigned char>& list, mode_t rights)
{
    for (std::size_t i = LIST_START; i + ENTRY_SIZE <= list.size(); i += ENTRY_SIZE)
    {
        if (list[i] == OWNING_GROUP)
        {
            list[i + RIGHTS_AT] &= static_cast<unsigned char>(rights);
        }
    }
}

// @return false where only a privileged process may
bool Give(int file, uid_t user, gid_t group)
{
    if (fchown(file, user, group) == 0)
    {
        return true;
    }
    // Users that a namespace does not have, EINVAL.
    if (errno != EPERM && errno != EINVAL)
    {
        Fail("setting the owner");
    }
    return false;
}

// If the old file had no access list, removes the one that the new file has from the directory's
// default list.
bool TakeAccessList(int file, const TSAccessList& list)
{
    if (list.m_bytes.empty())
    {
        return fremovexattr(file, ACCESS_LIST) == 0 || errno == ENODATA || errno == EOPNOTSUPP;
    }
    return fsetxattr(file, ACCESS_LIST, list.m_bytes.data(), list.m_bytes.size(), 0) == 0;
}

void SetMode(int file, mode_t mode)
{
    if (fchmod(file, mode) != 0)
    {
        Fail("setting the permissions");
    }
}

} // namespace

// The owner is changed last, because a process that has given a file away may no longer change it.
std::string TakeRights(const TCDirectory& directory, int file, const std::string& replaced,
                       const struct stat* pReplaced, bool isRestricted)
{
    const mode_t allowed = isRestricted ? PERMISSIONS & ~OTHERS : PERMISSIONS;
    if (pReplaced == nullptr)
    {
        SetMode(file, FIRST_MODE & allowed);
        return {};
    }
    struct stat mine;
    if (fstat(file, &mine) != 0)
    {
        Fail("looking at the new file");
    }
    std::string lost;
    mode_t mode = pReplaced->st_mode & allowed;
    const mode_t everybodys = pReplaced->st_mode & OTHERS;
    TSAccessList list = ReadAccessList(directory, replaced);
    const bool hasGroup = mine.st_gid == pReplaced->st_gid || Give(file, -1U, pReplaced->st_gid);
    if (!hasGroup)
    {
        AddWarning(lost, "its group could not be kept");
        SetGroupsRights(list.m_bytes, everybodys);
    }
    const bool hasList = TakeAccessList(file, list) && list.m_isKnown;
    if (!hasList)
    {
        AddWarning(lost, "its access list could not be kept");
    }
    // With an access list, these bits limit the rights that the list grants.
    if (!hasList || (!hasGroup && list.m_bytes.empty()))
    {
        mode &= ~GROUP | everybodys << GROUP_SHIFT;
    }
    SetMode(file, mode);
    if (mine.st_uid != pReplaced->st_uid && !Give(file, pReplaced->st_uid, -1U))
    {
        AddWarning(lost, "its owner could not be kept");
    }
    return lost;
}

void CloseToOthers(const TCDirectory& directory, const std::string& name)
{
    struct stat status;
    if (!directory.Look(name, status) || !S_ISREG(status.st_mode) || (status.st_mode & OTHERS) == 0)
    {
        return;
    }
    const TCDescriptor file(
        openat(directory.Get(), name.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC));
    if (file.Get() < 0 || fchmod(file.Get(), status.st_mode & PERMISSIONS & ~OTHERS) != 0)
    {
        Fail("closing " + name + " to others");
    }
}

} // namespace qord
