// An application without a main loop of its own: a thread beside it hears the service's events.
#include <atomic>
#include <fstream>
#include <future>
#include <iostream>
#include <iterator>
#include <string>
#include <thread>

#include <glib.h>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDebug.h>
#include <qor/api.h>

// In one piece: two threads print.
static void Print(const std::string& line)
{
    std::cout << line + "\n" << std::flush;
}

class Listener
{
public:
    // Back when events are heard. The process's endpoint belongs to the thread from here on, so
    // nothing else of the library that makes one may be called before.
    Listener() : m_thread(&Listener::Listen, this)
    {
        m_isListening.get_future().wait();
    }

    // Back when no function runs any more.
    ~Listener()
    {
        m_isEnding = true;
        g_main_context_wakeup(m_pContext);
        m_thread.join();
        g_main_context_unref(m_pContext);
    }

private:
    void Listen()
    {
        g_main_context_push_thread_default(m_pContext);
        auto callbacks = qor::TCCallbacksProxy::Instance();
        callbacks->SetPolicyUpdateCb([] { Print("there is a new policy"); });
        m_isListening.set_value();
        while (!m_isEnding)
        {
            g_main_context_iteration(m_pContext, TRUE); // events arrive in here
        }
        callbacks->ResetPolicyUpdateCb();
        callbacks.reset();
        qor::TCCallbacksProxy::Destroy();
        g_main_context_pop_thread_default(m_pContext);
    }

    GMainContext* m_pContext = g_main_context_new();
    std::promise<void> m_isListening;
    std::atomic<bool> m_isEnding{false};
    std::thread m_thread; // the last one: it uses the others
};

int main()
{
    qor::TCDebug::m_instance.EnableStdoutLog(false); // the platform log has the lines anyway

    const Listener listener;
    // Stands for what the application does, and may block in: it sets the policies that it is told.
    for (std::string path; std::getline(std::cin, path);)
    {
        std::ifstream file(path);
        const std::string policy{std::istreambuf_iterator<char>(file), {}};
        Print("result " + std::to_string(qor::api::GetControl()->SetPolicy(policy)));
    }
}
