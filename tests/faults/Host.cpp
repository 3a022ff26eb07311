// Hosts of the library that do what a test wants done in a process of its own.
//
//   qor-fault-host after-fork            forks first, uses the library in the child
//   qor-fault-host exit-in-callback      exits inside a callback while a call is pending on another
//                                        thread; what it reads from standard input says when
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <glib.h>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDebug.h>
#include <qor/api.h>

namespace
{

void Say(const char* text)
{
    std::printf("%s\n", text);
    std::fflush(stdout);
}

int SetPolicyOnce()
{
    const int result = qor::api::GetControl()->SetPolicy("<policy/>");
    std::printf("result %d\n", result);
    std::fflush(stdout);
    return result == 0 ? 0 : 1;
}

int AfterFork()
{
    const pid_t child = fork();
    if (child == 0)
    {
        std::exit(SetPolicyOnce());
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

int ExitInCallback()
{
    const auto control = qor::api::GetControl();
    qor::TCCallbacksProxy::Instance()->SetPolicyUpdateCb(
        [control]
        {
            std::thread([control] { control->SetPolicy("<policy/>"); }).detach();
            std::getchar();
            std::exit(7);
        });
    Say("waiting");
    for (;;)
    {
        g_main_context_iteration(nullptr, TRUE);
    }
}

} // namespace

int main(int count, char** arguments)
{
    qor::TCDebug::m_instance.EnableStdoutLog(false);
    const char* mode = count > 1 ? arguments[1] : "";
    if (std::strcmp(mode, "after-fork") == 0)
    {
        return AfterFork();
    }
    if (std::strcmp(mode, "exit-in-callback") == 0)
    {
        return ExitInCallback();
    }
    return 64;
}
