// Tests the service of service.cpp without a bus: the test is the bus.
#include <map>

#define main service_main
#include "service.cpp"
#undef main

class Bus : public qor::IDbusService
{
public:
    bool SetCallback(int type, const qor::TMessageCallback& callback) override
    {
        return m_callbacks.emplace(type, callback).second;
    }
    bool UnSetCallback(int type) override
    {
        return m_callbacks.erase(type) != 0;
    }
    bool IsReady() override
    {
        return true;
    }
    std::size_t NumberOfClients() override
    {
        return 0;
    }
    std::pair<std::size_t, std::size_t> SendMessage(int, const qor::TByteArray&, int) override
    {
        return {0, 0};
    }
    void SendEvent(int, const qor::TByteArray&, int, const TEventDone& onDone) override
    {
        m_events.push_back(onDone);
    }
    void SendEventTo(const std::vector<std::string>&, int, const qor::TByteArray&, int,
                     const TEventDone& onDone) override
    {
        m_events.push_back(onDone);
    }
    qor::TSPeer CurrentPeer() override
    {
        return m_peer;
    }
    qor::TSPeer Peer(const std::string&) override
    {
        return m_peer;
    }
    qor::EServiceState State() override
    {
        return qor::EServiceState::ACQUIRED;
    }
    void SetStateCallback(const boost::function<void(qor::EServiceState)>& callback) override
    {
        m_tellState = callback;
    }
    bool Stop(unsigned int, const boost::function<void()>& onStopped) override
    {
        onStopped();
        return true;
    }
    bool EmitSignal(const std::string&, const std::string&, GVariant*) override
    {
        return true;
    }
    void SetResumeCallback(const boost::function<void(const std::string&, int)>&) override {}

    std::map<int, qor::TMessageCallback> m_callbacks;
    std::vector<TEventDone> m_events; // functions that want the outcomes
    qor::TSPeer m_peer;               // the sender of the next request
    boost::function<void(qor::EServiceState)> m_tellState;
};

static void Require(bool condition, const char* what)
{
    if (!condition)
    {
        std::cerr << "FAILED: " << what << std::endl;
        std::exit(1);
    }
}

int main()
{
    Bus bus;
    Service service(bus);
    qor::TByteArray request;
    qor::TByteArray reply;
    qor::WritePolicyRequest("<policy/>", request);
    const auto setPolicy = [&]
    {
        Require(bus.m_callbacks[qor::SET_POLICY](request, reply), "there is an answer");
        return qor::ReadPolicyReply(reply);
    };
    Require(setPolicy() == qor::POLICY_NOT_STORED, "an unknown sender may try again");
    bus.m_peer.m_isKnown = true;
    bus.m_peer.m_userId = geteuid() + 1;
    Require(setPolicy() == qor::POLICY_NOT_PERMITTED, "an ordinary user may not");
    bus.m_peer.m_userId = geteuid();
    Require(setPolicy() == qor::POLICY_STORED, "the service's own user may");
    Require(setPolicy() == qor::POLICY_STORED, "again");
    Require(bus.m_events.empty(), "an event comes after the reply");
    while (g_main_context_iteration(nullptr, FALSE) != FALSE)
    {
    }
    Require(bus.m_events.size() == 1, "two that are due at the same time become one event");
    bus.m_events[0]({{":1.7", qor::EDelivery::TIMED_OUT, 0}});
    Require(setPolicy() == qor::POLICY_STORED, "another one");
    bus.m_tellState(qor::EServiceState::LOST);
    Require(bus.m_events.size() == 2, "what is due goes out before the end");
    Require(service.Run() == 1, "and the name was lost");
}
