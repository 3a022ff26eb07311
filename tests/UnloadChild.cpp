// Loads the library as a plugin would, uses it, and says what happened:
//
//   UnloadChild LIBRARY unload|exit use|idle
//
// It is not linked with the library. Everything that the teardown calls prints a line.
#include <dlfcn.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include <boost/shared_ptr.hpp>
#include <glib.h>

#include <qor/ICallbacks.h>
#include <qor/IControl.h>
#include <qor/IPolicyControl.h>
#include <qor/TIDestroyCallback.h>

// This program's own copy; the library is not there to link with.
qor::TIDestroyCallback::~TIDestroyCallback() = default;

namespace
{

void* pLibrary;
void (*pRegister)(void (*)());
bool (*pRegisterUser)(qor::TIDestroyCallback&);
void (*pUnregisterUser)(qor::TIDestroyCallback&);
std::string (*pPolicyPath)();

// Where the code stays, at exit, the functions wait for another thread, and another one for the
// user's end.
bool hasOther = false;
std::atomic<bool> isOtherBack(false);
std::thread other;

template <class TFunction>
void Find(TFunction*& pFunction, const char* name)
{
    pFunction = reinterpret_cast<TFunction*>(dlsym(pLibrary, name));
    if (pFunction == nullptr)
    {
        fprintf(stderr, "missing %s\n", name);
        _Exit(3);
    }
}

bool IsLoaded(const char* library)
{
    void* const pFound = dlopen(library, RTLD_NOW | RTLD_NOLOAD);
    return pFound != nullptr && dlclose(pFound) == 0;
}

template <int N>
void Teardown()
{
    printf("function %p %s\n", reinterpret_cast<void*>(&Teardown<N>), pPolicyPath().c_str());
    const auto refused = [] { pRegister(&Teardown<100>); }; // without blocking
    if (hasOther)
    {
        std::thread(refused).join();
    }
    else
    {
        refused();
    }
    if (other.joinable())
    {
        other.join();
    }
}

// The platform's log, which may come back into the library that writes the line.
bool isInsideLog = false;
void RegisterWhileLogging(const char* format)
{
    if (!isInsideLog && strstr(format, "Register a new DBUS callback") != nullptr)
    {
        isInsideLog = true;
        pRegister(&Teardown<1>);
        isInsideLog = false;
    }
}

struct User : qor::TIDestroyCallback
{
    void OnDestroy() override
    {
        printf("user\n");
        if (hasOther)
        {
            const auto unregister = [this]
            {
                pUnregisterUser(*this);
                isOtherBack = true;
            };
            other = std::thread(unregister);
            usleep(50000);
            printf("the other one waits %d\n", !isOtherBack);
        }
        printf("again %d\n", pRegisterUser(*this));
    }
};

// Nobody iterates the context before the library goes, so the call is pending then.
void SendPending()
{
    boost::shared_ptr<qor::IPolicyControl> (*pGetControl)();
    void (*pConstruct)(void*);
    Find(pGetControl, "_ZN3qor3api16GetPolicyControlEv");
    Find(pConstruct, "_ZN3qor14TCCancellationC1Ev");
    alignas(qor::TCCancellation) unsigned char storage[sizeof(qor::TCCancellation)];
    pConstruct(storage);
    auto* const pCancellation = reinterpret_cast<qor::TCCancellation*>(storage);
    pGetControl()->SetPolicyAsync(
        "text", 20, *pCancellation, [](const qor::TSPolicyResult&) { printf("a result\n"); },
        nullptr);
    pCancellation->~TCCancellation();
}

void Use()
{
    static User* const pUser = new User;
    boost::shared_ptr<qor::IControl> (*pGetControl)();
    boost::shared_ptr<qor::ICallbacks> (*pInstance)();
    void (*pDestroy)();
    Find(pUnregisterUser, "_ZN3qor13TCDeactivator14UnregisterUserERNS_17TIDestroyCallbackE");
    Find(pGetControl, "_ZN3qor3api10GetControlEv");
    Find(pInstance, "_ZN3qor16TCCallbacksProxy8InstanceEv");
    Find(pDestroy, "_ZN3qor16TCCallbacksProxy7DestroyEv");
    Find(pRegisterUser, "_ZN3qor13TCDeactivator12RegisterUserERNS_17TIDestroyCallbackE");
    Find(pPolicyPath, "_ZN3qor13TCDirsManager16GetPolicyXmlPathB5cxx11Ev");
    Find(pRegister, "_ZN3qor13TCDeactivator12RegisterDBUSEPFvvE");
    printf("events %d\n", pInstance()->SetPolicyUpdateCb([] {}));
    printf("policy %d\n", pGetControl()->SetPolicy("text")); // an event comes with the answer
    SendPending();
    pDestroy();
    for (void (*const pFunction)() :
         {&Teardown<3>, &Teardown<1>, &Teardown<4>, &Teardown<2>, &Teardown<1>})
    {
        pRegister(pFunction);
    }
    pRegisterUser(*pUser); // until any is unregistered
    const bool refused = pRegisterUser(*pUser);
    pUnregisterUser(*pUser);
    printf("user refused %d, registered %d\n", refused, pRegisterUser(*pUser));
}

} // namespace

extern "C" __attribute__((visibility("default"))) int __dlog_print(int, int, const char*,
                                                                   const char* format, ...)
{
    RegisterWhileLogging(format);
    return 0;
}

int main(int argc, char** argv)
{
    pLibrary = argc < 4 ? nullptr : dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (pLibrary == nullptr)
    {
        fprintf(stderr, "cannot load: %s\n", dlerror());
        return 2;
    }
    const bool isUnloaded = strcmp(argv[2], "unload") == 0;
    if (strcmp(argv[3], "use") == 0)
    {
        hasOther = !isUnloaded;
        Use();
    }
    printf("loaded %d\n", IsLoaded(argv[1]));
    if (isUnloaded)
    {
        dlclose(pLibrary);
        for (int i = 0; i < 50; ++i) // what is queued was for a handler that is gone
        {
            g_main_context_iteration(nullptr, FALSE);
            g_usleep(1000);
        }
        printf("still loaded %d\n", IsLoaded(argv[1]));
    }
    printf("end\n");
    return 0;
}
