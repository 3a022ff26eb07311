// The applications on the bus, and the last event that each has heard.
#include "qord/Applications.h"

#include <chrono>

#include <qor/ICallbacks.h>

namespace qord
{
namespace
{

using TClock = std::chrono::steady_clock;

// For all that are asked for, but the last.
constexpr std::chrono::seconds PATIENCE(1);

} // namespace

std::string MarkOfPolicyInForce(const TCPolicyStore& store)
{
    const auto policies = store.List();
    if (policies.empty() || policies.back().m_number != 0)
    {
        return {};
    }
    const struct stat& file = policies.back().m_status;
    return std::to_string(file.st_ino) + ' ' + std::to_string(file.st_size) + ' ' +
           std::to_string(file.st_mtim.tv_sec) + ' ' + std::to_string(file.st_mtim.tv_nsec);
}

bool IsListening(qor::TCDbusServer& server, const std::string& client)
{
    return server.IsRegistered(client, qor::ICallbacks::POLICY_UPDATE);
}

TApplications Look(qor::TCDbusServer& server, const TApplications& before)
{
    const auto end = TClock::now() + PATIENCE;
    TApplications present;
    for (const auto& client : server.Clients())
    {
        const auto known = before.find(client.m_name);
        const auto application =
            known == before.end() ? std::make_shared<TSApplication>() : known->second;
        if (!application->m_isKnown && TClock::now() < end)
        {
            const qor::TSPeer peer = server.Peer(client.m_name);
            application->m_isKnown = peer.m_isKnown;
            application->m_sender = peer.m_isKnown ? SenderOf(peer) : TSSender();
        }
        present.emplace(client.m_name, application);
    }
    return present;
}

} // namespace qord
