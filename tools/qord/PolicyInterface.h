// The interface com.norvane.qor.Policy1: its methods and properties on the bus.
#ifndef QORD_POLICYINTERFACE_H
#define QORD_POLICYINTERFACE_H

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include <gio/gio.h>

#include <qor/QORDbusServer.h>
#include <qor/ServiceInterface.h>

#include "qord/HearingWaits.h"
#include "qord/PolicyFacts.h"
#include "qord/PolicyHandler.h"

namespace qord
{

/// Belongs to the thread that iterates the main context.
class TCPolicyInterface
{
public:
    /// Functions of the service for a call.
    struct TSService
    {
        std::function<TSAsker()> m_asker;       ///< The caller; may ask the user database.
        std::function<EPermission()> m_mayRead; ///< Whether the caller may read the policies.
        std::function<bool()> m_isReady;
        std::function<void()> m_onStored; ///< A policy that may be in force now.
    };

    TCPolicyInterface(TSService service, TCPolicyHandler& handler, TCPolicyFacts& facts,
                      TCHearingWaits& waits);

    /// For the server, whose functions call this object.
    qor::TSServiceInterface Interface();

    /// Before the first call is handled.
    void Use(qor::TCDbusServer& server)
    {
        m_pServer = &server;
    }

    /// Sends the signal that another policy is in force, if that is so.
    ///
    /// @param isTold  whether everybody may know which one
    void TellChange(bool isTold);

private:
    struct TSOptions
    {
        std::optional<std::string> m_ifMatch;
        unsigned int m_waitSeconds = 0; ///< 0: does not wait.
    };

    void m_Handle(GDBusMethodInvocation* pInvocation) noexcept;
    void m_Answer(GDBusMethodInvocation* pInvocation);
    bool m_MayRead(GDBusMethodInvocation* pInvocation) const;
    void m_AnswerRead(GDBusMethodInvocation* pInvocation, const std::string& method);
    void m_SetPolicy(GDBusMethodInvocation* pInvocation, const TSAsker& asker);
    void m_Restore(GDBusMethodInvocation* pInvocation, const TSAsker& asker);
    void m_Set(GDBusMethodInvocation* pInvocation, const TSAsker& asker, std::string_view policy,
               const TSOptions& options);
    bool m_ReadOptions(GDBusMethodInvocation* pInvocation, TSOptions& options) const;
    bool m_ReadPolicy(GDBusMethodInvocation* pInvocation, std::string& policy) const;
    GVariant* m_ReadProperty(const std::string& name) noexcept;

    TSService m_service;
    TCPolicyHandler& m_handler;
    TCPolicyFacts& m_facts;
    TCHearingWaits& m_waits;
    qor::TCDbusServer* m_pServer = nullptr;
    std::string m_told; ///< The hash of the policy that was told of last.
};

} // namespace qord

#endif
