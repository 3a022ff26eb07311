// A service: takes policies from the users who may change it, tells all applications about each new
// one, prints which of them have not heard of it, and stops cleanly.
#include <algorithm>
#include <csignal>
#include <iostream>

#include <grp.h>
#include <unistd.h>

#include <glib-unix.h>

#include <qor/ICallbacks.h>
#include <qor/PolicyMessage.h>
#include <qor/QORDbusServer.h>

// Uses the interface only, so that a test can hand it another implementation.
class Service
{
public:
    explicit Service(qor::IDbusService& bus) : m_bus(bus)
    {
        m_bus.SetCallback(qor::SET_POLICY, [this](const auto& request, auto& reply)
                          { return TakePolicy(request, reply); });
        m_bus.SetStateCallback([this](qor::EServiceState state) { StateIs(state); });
    }

    void Stop()
    {
        AnnounceWhatIsDue();
        m_bus.Stop(2000, [this] { m_isRunning = false; });
    }

    int Run()
    {
        while (m_isRunning)
        {
            g_main_context_iteration(nullptr, TRUE); // everything happens in here
        }
        return m_exitStatus;
    }

private:
    // Root, the service's own user, and the group "qor" may. An unknown sender may not.
    static bool MayChange(const qor::TSPeer& peer)
    {
        const group* const pGroup = getgrnam("qor");
        const auto& ids = peer.m_groupIds;
        return peer.m_isKnown &&
               (peer.m_userId == 0 || peer.m_userId == geteuid() ||
                (pGroup != nullptr && std::count(ids.begin(), ids.end(), pGroup->gr_gid) != 0));
    }

    bool TakePolicy(const qor::TByteArray& request, qor::TByteArray& reply)
    {
        const qor::TSPeer peer = m_bus.CurrentPeer();
        if (!MayChange(peer))
        {
            // The bus has not told yet who an unknown sender is: it may try again.
            qor::WritePolicyReply(peer.m_isKnown ? qor::POLICY_NOT_PERMITTED
                                                 : qor::POLICY_NOT_STORED,
                                  request, reply);
            return true;
        }
        std::string_view policy;
        std::string error;
        if (qor::ReadPolicyRequest(request, policy, error) != qor::EPolicyRequest::GOOD)
        {
            std::cerr << "not a policy: " << error << std::endl;
            return false;
        }
        std::cout << "a policy of " << policy.size() << " bytes" << std::endl;
        qor::WritePolicyReply(qor::POLICY_STORED, request, reply);
        // Announce it after the reply: a client that waits for a reply is not called.
        m_isDue = true;
        g_idle_add([](void* pThis) { return static_cast<Service*>(pThis)->AnnounceWhatIsDue(); },
                   this);
        return true;
    }

    int AnnounceWhatIsDue()
    {
        if (m_isDue)
        {
            m_isDue = false;
            m_bus.SendEvent(qor::ICallbacks::POLICY_UPDATE, {}, 2000, Report);
        }
        return G_SOURCE_REMOVE;
    }

    static void Report(const std::vector<qor::TSDelivery>& deliveries)
    {
        for (const qor::TSDelivery& delivery : deliveries)
        {
            const bool hasHeard = delivery.m_outcome == qor::EDelivery::DELIVERED;
            std::cout << delivery.m_name << (hasHeard ? ": heard" : ": not heard") << std::endl;
        }
    }

    void StateIs(qor::EServiceState state)
    {
        if (state != qor::EServiceState::ACQUIRED)
        {
            m_exitStatus = 1;
            Stop();
        }
    }

    qor::IDbusService& m_bus;
    bool m_isDue = false; // an announcement
    bool m_isRunning = true;
    int m_exitStatus = 0;
};

int main()
{
    qor::TCDbusServer bus(false);
    Service service(bus);
    g_unix_signal_add(
        SIGTERM, [](void* pService) { return static_cast<Service*>(pService)->Stop(), 1; },
        &service);
    return bus.GetUniqueName().empty() ? 1 : service.Run(); // empty: there is no bus
}
