// An application: hands the service a policy, and hears when there is a new one.
#include <fstream>
#include <iostream>
#include <iterator>

#include <glib.h>

#include <qor/QORCallbacksProxy.h>
#include <qor/QORDebug.h>
#include <qor/api.h>

int main(int count, char** arguments)
{
    qor::TCDebug::m_instance.EnableStdoutLog(false); // the platform log has the lines anyway

    const auto callbacks = qor::TCCallbacksProxy::Instance();
    callbacks->SetPolicyUpdateCb([] { std::cout << "there is a new policy" << std::endl; });

    std::ifstream file(count > 1 ? arguments[1] : "policy.xml");
    const std::string policy{std::istreambuf_iterator<char>(file), {}};
    std::cout << "result " << qor::api::GetControl()->SetPolicy(policy) << std::endl;

    // Events arrive while the process's main context is iterated.
    g_main_loop_run(g_main_loop_new(nullptr, FALSE));
}
