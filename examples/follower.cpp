// An application that follows the policy: when it hears that there is a new one, it fetches it from
// the service and uses it.
#include <iostream>

#include <glib.h>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDbusClient.h>
#include <qor/QORDebug.h>
#include <qor/api.h>

static void Follow()
{
    const qor::TSPolicyText text = qor::api::GetPolicyControl()->GetPolicy(0, 2000, {});
    if (text.m_send.m_status == qor::ESendStatus::ANSWERED_TRUE)
    {
        std::cout << "a policy of " << text.m_policy.size() << " bytes" << std::endl;
    }
    else
    {
        std::cout << "none: " << text.m_send.m_text << std::endl;
    }
}

int main()
{
    qor::TCDebug::m_instance.EnableStdoutLog(false); // the platform log has the lines anyway

    const auto callbacks = qor::TCCallbacksProxy::Instance();
    callbacks->SetPolicyUpdateCb(&Follow);
    // The service does not repeat what it announced before this process was registered: look then.
    const auto client = qor::TCDbusClientProvider::Get(false);
    client->AddStateCallback(
        [](qor::EClientState state)
        {
            if (state == qor::EClientState::REGISTERED)
            {
                Follow();
            }
        });

    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
