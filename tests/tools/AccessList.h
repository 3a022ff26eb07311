// Access lists of files, as the kernel hands them out.
#ifndef QORTEST_ACCESSLIST_H
#define QORTEST_ACCESSLIST_H

#include <string>

#include <sys/types.h>
#include <sys/xattr.h>

namespace qortest
{

/// Of owner, user 12345, group, mask and others. The lists are the same where they allow the same.
inline std::string AccessList(char group, char others)
{
    const auto entry = [](char kind, char rights, const std::string& whose = "\xff\xff\xff\xff") {
        return std::string{kind, 0, rights, 0} + whose;
    };
    return std::string{2, 0, 0, 0} + entry(1, 6) + entry(2, 6, {0x39, 0x30, 0, 0}) +
           entry(4, group) + entry(16, 6) + entry(32, others);
}

/// Empty where it has none.
inline std::string AccessListOf(const std::string& path)
{
    char bytes[256];
    const ssize_t size = getxattr(path.c_str(), "system.posix_acl_access", bytes, sizeof bytes);
    return std::string(bytes, size < 0 ? 0 : static_cast<std::size_t>(size));
}

/// @return false where the file system has no such lists
inline bool SetAccessList(const std::string& path, const std::string& list,
                          const char* attribute = "system.posix_acl_access")
{
    return setxattr(path.c_str(), attribute, list.data(), list.size(), 0) == 0;
}

} // namespace qortest

#endif
