// A host of the library in a process of its own.
//
//   qor-fault-host fork    forks first, uses the library in the child
//   qor-fault-host exit    exits inside a callback while a call is pending on another thread; what
//                          it reads from standard input says when
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include <glib.h>

#include <qor/QORCallbacksProxy.h>
#include <qor/api.h>

int main(int, char** arguments)
{
    if (arguments[1] == std::string("fork"))
    {
        const pid_t child = fork();
        if (child == 0)
        {
            std::exit(qor::api::GetControl()->SetPolicy("<policy/>") == 0 ? 42 : 1);
        }
        int status = 0;
        waitpid(child, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
    }
    const auto control = qor::api::GetControl();
    qor::TCCallbacksProxy::Instance()->SetPolicyUpdateCb(
        [control]
        {
            std::thread([control] { control->SetPolicy("<policy/>"); }).detach();
            std::getchar();
            std::exit(7);
        });
    for (;;)
    {
        g_main_context_iteration(nullptr, TRUE);
    }
}
