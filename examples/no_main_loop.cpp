// An application without a main loop of its own: an extra thread receives the service's events.
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORContextThread.h>
#include <qor/QORDebug.h>
#include <qor/api.h>

// Prints a line in one piece, because two threads print.
static void Print(const std::string& line)
{
    std::cout << line + "\n" << std::flush;
}

static void Listen()
{
    qor::TCCallbacksProxy::Instance()->SetPolicyUpdateCb([] { Print("there is a new policy"); });
}

int main()
{
    qor::TCDebug::m_instance.EnableStdoutLog(false); // the platform log has the lines anyway

    qor::TCContextThread thread;
    thread.Run(Listen); // makes the process's endpoint, so events arrive on the thread
    // Stands for the application's own work, which may block: it reads names of policy files and
    // sets these policies.
    for (std::string path; std::getline(std::cin, path);)
    {
        std::ifstream file(path);
        const std::string policy{std::istreambuf_iterator<char>(file), {}};
        Print("result " + std::to_string(qor::api::GetControl()->SetPolicy(policy)));
    }
    thread.Run(&qor::TCCallbacksProxy::Destroy); // no function runs any more
}
