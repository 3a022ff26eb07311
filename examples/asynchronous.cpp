// An application whose main loop never waits: functions tell it the result of its policy, and the
// state of its connection with the service.
#include <fstream>
#include <iostream>
#include <iterator>

#include <glib-unix.h>

#include <qor/QORDbusClient.h>
#include <qor/QORDebug.h>
#include <qor/api.h>

static void ShowState(qor::EClientState state)
{
    static const char* const WORDS[] = {"the service is there", "the service has gone",
                                        "registered",           "the bus is lost",
                                        "the bus is found",     "not registered yet"};
    std::cout << WORDS[static_cast<int>(state)] << std::endl;
}

static void ShowResult(const qor::TSPolicyResult& result)
{
    switch (result.m_send.m_status)
    {
    case qor::ESendStatus::ANSWERED_TRUE:
        std::cout << "result " << result.m_result << std::endl;
        break;
    case qor::ESendStatus::NO_ANSWER:
        std::cout << "no answer: the policy may be in force or not" << std::endl;
        break;
    default:
        std::cout << "not set: " << result.m_send.m_text << std::endl;
    }
}

static int Quit(void* pLoop)
{
    g_main_loop_quit(static_cast<GMainLoop*>(pLoop));
    return G_SOURCE_REMOVE;
}

int main(int count, char** arguments)
{
    qor::TCDebug::m_instance.EnableStdoutLog(false); // the platform log has the lines anyway
    GMainLoop* const pLoop = g_main_loop_new(nullptr, FALSE);
    g_unix_signal_add(SIGTERM, &Quit, pLoop);

    const auto client = qor::TCDbusClientProvider::Get(false);
    const unsigned int observer = client->AddStateCallback(&ShowState);

    std::ifstream file(count > 1 ? arguments[1] : "policy.xml");
    const std::string policy{std::istreambuf_iterator<char>(file), {}};
    qor::api::GetPolicyControl()->SetPolicyAsync(policy, 5000, {}, &ShowResult, nullptr);

    g_main_loop_run(pLoop); // states and results arrive in here
    client->RemoveStateCallback(observer);
    g_main_loop_unref(pLoop);
}
