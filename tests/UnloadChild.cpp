// Loads the library as a plugin would, uses it, and says what happened:
//
//   UnloadChild LIBRARY unload|exit [policy] [events] [register]
//
// It is not linked with the library. Everything that the teardown calls prints a line.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <string>

#include <boost/shared_ptr.hpp>

#include <qor/ICallbacks.h>
#include <qor/IControl.h>
#include <qor/TIDestroyCallback.h>

// This program's own copy; the library is not there to link with.
qor::TIDestroyCallback::~TIDestroyCallback() = default;

namespace
{

void* pLibrary;
void (*pRegister)(void (*)());
bool (*pRegisterUser)(qor::TIDestroyCallback&);

template <class TFunction>
void Find(TFunction*& pFunction, const char* name)
{
    pFunction = reinterpret_cast<TFunction*>(dlsym(pLibrary, name));
    if (pFunction == nullptr)
    {
        printf("missing %s\n", name);
        fflush(stdout);
        _Exit(3);
    }
}

bool IsMapped()
{
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
    {
        if (line.find("libQOR.so") != std::string::npos)
        {
            return true;
        }
    }
    return false;
}

template <int N>
void Teardown()
{
    printf("function %p\n", reinterpret_cast<void*>(&Teardown<N>));
    pRegister(&Teardown<100>); // refused, without blocking
}

class User : public qor::TIDestroyCallback
{
public:
    void OnDestroy() override
    {
        printf("user\n");
        printf("again %d\n", pRegisterUser(*this));
    }
};

void UsePolicy()
{
    boost::shared_ptr<qor::IControl> (*pGetControl)();
    Find(pGetControl, "_ZN3qor3api10GetControlEv");
    printf("policy %d\n", pGetControl()->SetPolicy("text"));
}

void UseEvents()
{
    boost::shared_ptr<qor::ICallbacks> (*pInstance)();
    void (*pDestroy)();
    Find(pInstance, "_ZN3qor16TCCallbacksProxy8InstanceEv");
    Find(pDestroy, "_ZN3qor16TCCallbacksProxy7DestroyEv");
    printf("events %d\n", pInstance()->SetPolicyUpdateCb([] {}));
    pDestroy();
}

void RegisterAll()
{
    static User* const pUser = new User;
    Find(pRegisterUser, "_ZN3qor13TCDeactivator12RegisterUserERNS_17TIDestroyCallbackE");
    Find(pRegister, "_ZN3qor13TCDeactivator12RegisterDBUSEPFvvE");
    for (void (*const pFunction)() :
         {&Teardown<3>, &Teardown<1>, &Teardown<4>, &Teardown<2>, &Teardown<1>})
    {
        pRegister(pFunction);
    }
    printf("user registered %d\n", pRegisterUser(*pUser));
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3 || (pLibrary = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL)) == nullptr)
    {
        printf("cannot load: %s\n", dlerror());
        return 2;
    }
    const std::set<std::string> uses(argv + 3, argv + argc);
    if (uses.count("policy") != 0)
    {
        UsePolicy();
    }
    if (uses.count("events") != 0)
    {
        UseEvents();
    }
    if (uses.count("register") != 0)
    {
        RegisterAll();
    }
    printf("loaded %d\n", IsMapped());
    if (strcmp(argv[2], "unload") == 0)
    {
        dlclose(pLibrary);
        printf("still loaded %d\n", IsMapped());
    }
    printf("end\n");
    return 0;
}
