// Hosts of the library that do what a test wants done in a process of its own.
//
//   qor-fault-host after-fork        forks first, uses the library in the child
//   qor-fault-host exit-in-callback  exits inside a callback while a call is pending on another
//                                    thread; what it reads from standard input says when
//   qor-fault-host reconnect         takes a new endpoint whenever the old one loses the service
//   qor-fault-host count             counts the events that it is told of
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

#include <glib-unix.h>
#include <glib.h>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
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

// Takes a new endpoint whenever the old one has lost the service, until it is told to end.
int Reconnect()
{
    static volatile std::sig_atomic_t isEnding = 0;
    std::signal(SIGTERM, [](int) { isEnding = 1; });
    constexpr int PATIENCE = 50;
    int unready = 0;
    bool wasReady = false;
    boost::shared_ptr<qor::IDbusClient> client;
    while (isEnding == 0)
    {
        if (!client)
        {
            client = qor::TCDbusClientProvider::Get(false);
            client->SetCallback(qor::ICallbacks::POLICY_UPDATE,
                                [](const qor::TByteArray&, qor::TByteArray&)
                                {
                                    Say("policy");
                                    return true;
                                });
        }
        while (g_main_context_iteration(nullptr, FALSE) != FALSE)
        {
        }
        const bool isReady = client->IsReady();
        if (isReady && !wasReady)
        {
            Say("ready");
        }
        if (wasReady && !isReady)
        {
            qor::TByteArray response;
            Say(client->SendMessage(1, {}, response, false) ? "delivered" : "refused");
            unready = PATIENCE;
        }
        wasReady = isReady;
        unready = isReady ? 0 : unready + 1;
        if (unready > PATIENCE)
        {
            client.reset(); // a closed connection is let go of
            unready = 0;
        }
        g_usleep(20000);
    }
    return 0;
}

// Counts the events that it is told of, until it is told to end.
int Count()
{
    bool isEnding = false;
    g_unix_signal_add(
        SIGTERM,
        [](void* pIsEnding) -> int
        {
            *static_cast<bool*>(pIsEnding) = true;
            return G_SOURCE_CONTINUE;
        },
        &isEnding);
    int policies = 0;
    int processInfos = 0;
    const auto callbacks = qor::TCCallbacksProxy::Instance();
    callbacks->SetPolicyUpdateCb([&] { ++policies; });
    callbacks->SetRequestProcessInfoCb(
        [&]
        {
            ++processInfos;
            return true;
        });
    const auto client = qor::TCDbusClientProvider::Get(false);
    bool isRegistered = false;
    while (!isEnding)
    {
        g_main_context_iteration(nullptr, TRUE);
        if (!isRegistered && client->IsReady())
        {
            // Answered after the Hello that went before: the service knows this client by then.
            qor::TByteArray response;
            client->SendMessage(1, {}, response, false);
            Say("registered");
            isRegistered = true;
        }
    }
    std::printf("policies %d, process infos %d\n", policies, processInfos);
    callbacks->ResetPolicyUpdateCb();
    callbacks->ResetRequestProcessInfoCb();
    qor::TCCallbacksProxy::Destroy();
    return 0;
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
    if (std::strcmp(mode, "reconnect") == 0)
    {
        return Reconnect();
    }
    if (std::strcmp(mode, "count") == 0)
    {
        return Count();
    }
    return 64;
}
