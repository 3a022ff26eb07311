// Tests an application without a service and without a bus: this file defines the functions that
// the library would provide.
#include <cstdint>
#include <iostream>
#include <string>

#include <boost/make_shared.hpp>

#include <qor/PolicyMessage.h>
#include <qor/QORCallbacksProxy.h>
#include <qor/api.h>

// --- The application, which would be linked in -------------------------------------------------

static std::string Publish(const std::string& policy)
{
    const qor::TSPolicyResult result = qor::api::GetPolicyControl()->SetPolicy(policy, 2000, {});
    return result.m_result == qor::POLICY_STORED ? "stored" : "not stored: " + result.m_send.m_text;
}

static void CountUpdates(int& updates)
{
    qor::TCCallbacksProxy::Instance()->SetPolicyUpdateCb([&updates] { ++updates; });
}

// --- In place of the library -------------------------------------------------------------------

struct FakeControl : qor::IControl, qor::IPolicyControl
{
    int SetPolicy(const std::string& policy) override
    {
        return SetPolicy(policy, -1, {}).m_result;
    }
    qor::TSPolicyResult SetPolicy(const std::string& policy, int /*timeoutMs*/,
                                  const qor::TCCancellation& /*cancellation*/) override
    {
        m_policy = policy;
        return m_next;
    }
    void SetPolicyAsync(const std::string& policy, int timeoutMs,
                        const qor::TCCancellation& cancellation, const qor::TPolicyCallback& onDone,
                        GMainContext* /*pContext*/) override
    {
        onDone(SetPolicy(policy, timeoutMs, cancellation));
    }
    qor::TSPolicyText GetPolicy(std::uint64_t /*number*/, int /*timeoutMs*/,
                                const qor::TCCancellation& /*cancellation*/) override
    {
        return {m_next.m_send, {}, m_policy};
    }
    void GetPolicyAsync(std::uint64_t number, int timeoutMs,
                        const qor::TCCancellation& cancellation,
                        const qor::TPolicyTextCallback& onDone, GMainContext* /*pContext*/) override
    {
        onDone(GetPolicy(number, timeoutMs, cancellation));
    }

    std::string m_policy;
    qor::TSPolicyResult m_next; // what the next SetPolicy gives
};

struct FakeCallbacks : qor::ICallbacks
{
    bool SetPolicyUpdateCb(const boost::function<void()>& callback) override
    {
        m_policyUpdate = callback;
        return true;
    }
    bool ResetPolicyUpdateCb() override
    {
        m_policyUpdate.clear();
        return true;
    }
    bool SetRequestProcessInfoCb(const boost::function<bool()>& /*callback*/) override
    {
        return true;
    }
    bool ResetRequestProcessInfoCb() override
    {
        return true;
    }

    boost::function<void()> m_policyUpdate;
};

static const auto g_control = boost::make_shared<FakeControl>();
static const auto g_callbacks = boost::make_shared<FakeCallbacks>();

// A program's own functions come before those of a shared library.
boost::shared_ptr<qor::IControl> qor::api::GetControl()
{
    return g_control;
}
boost::shared_ptr<qor::IPolicyControl> qor::api::GetPolicyControl()
{
    return g_control;
}
boost::shared_ptr<qor::ICallbacks> qor::TCCallbacksProxy::Instance()
{
    return g_callbacks;
}

// --- The tests ---------------------------------------------------------------------------------

static int g_failures = 0;

static void Expect(bool isTrue, const char* what)
{
    std::cout << (isTrue ? "ok: " : "FAILED: ") << what << std::endl;
    g_failures += isTrue ? 0 : 1;
}

int main()
{
    g_control->m_next.m_send.m_status = qor::ESendStatus::ANSWERED_TRUE;
    g_control->m_next.m_result = qor::POLICY_STORED;
    Expect(Publish("<policy/>") == "stored", "a policy is stored");
    Expect(g_control->m_policy == "<policy/>", "the service gets the text unchanged");

    g_control->m_next = {};
    g_control->m_next.m_send.m_status = qor::ESendStatus::NO_SERVICE;
    g_control->m_next.m_send.m_text = "nobody there";
    Expect(Publish("") == "not stored: nobody there", "a failure is told with its reason");
    Expect(qor::api::GetControl()->SetPolicy("") == -1, "GetControl says so too");

    int updates = 0;
    CountUpdates(updates);
    g_callbacks->m_policyUpdate();
    Expect(updates == 1, "the application hears an event");
    return g_failures;
}
