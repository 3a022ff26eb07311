// A user database that hangs while there is a file "hang" in the directory QOR_TEST_USERS, and that
// has a group of many, with the number of "daemon", for each other file there. Linked or preloaded.
#include <dlfcn.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace
{

constexpr size_t MANY_MEMBERS = 10000; // bytes that their names take

bool HasFile(const std::string& name)
{
    const char* const pDirectory = getenv("QOR_TEST_USERS");
    return pDirectory != nullptr && access((pDirectory + ("/" + name)).c_str(), F_OK) == 0;
}

template <class TFunction, class... TArguments>
int Ask(TFunction*, const char* name, TArguments... arguments)
{
    while (HasFile("hang"))
    {
        usleep(10000);
    }
    return reinterpret_cast<TFunction*>(dlsym(RTLD_NEXT, name))(arguments...);
}

} // namespace

int getpwuid_r(uid_t id, passwd* pEntry, char* buffer, size_t size, passwd** ppFound)
{
    return Ask(&getpwuid_r, "getpwuid_r", id, pEntry, buffer, size, ppFound);
}

int getgrnam_r(const char* name, group* pEntry, char* buffer, size_t size, group** ppFound)
{
    if (HasFile(name) && size < MANY_MEMBERS)
    {
        *ppFound = nullptr;
        return ERANGE;
    }
    return Ask(&getgrnam_r, "getgrnam_r", HasFile(name) ? "daemon" : name, pEntry, buffer, size,
               ppFound);
}
