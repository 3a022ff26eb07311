// Makes sure that the service has taken the registration for events.
#include "qorctl/Registration.h"

#include <cstdint>
#include <utility>

#include <gio/gio.h>

#include <qor/ICallbacks.h>

#include "common/SystemBus.h"
#include "common/Text.h"

namespace qorctl
{
namespace
{

constexpr int ANSWER_LIMIT_MS = 10000;

bool IsLate(const GError* pError)
{
    return g_error_matches(pError, G_IO_ERROR, G_IO_ERROR_TIMED_OUT) != FALSE ||
           g_error_matches(pError, G_DBUS_ERROR, G_DBUS_ERROR_TIMEOUT) != FALSE;
}

bool HasLeft(const GError* pError)
{
    return g_error_matches(pError, G_DBUS_ERROR, G_DBUS_ERROR_NO_REPLY) != FALSE ||
           g_error_matches(pError, G_DBUS_ERROR, G_DBUS_ERROR_SERVICE_UNKNOWN) != FALSE ||
           g_error_matches(pError, G_DBUS_ERROR, G_DBUS_ERROR_NAME_HAS_NO_OWNER) != FALSE ||
           g_error_matches(pError, G_IO_ERROR, G_IO_ERROR_CLOSED) != FALSE;
}

} // namespace

TCRegistration::TCRegistration(TDone done) : m_done(std::move(done)) {}

std::shared_ptr<TCRegistration> TCRegistration::Start(GDBusConnection* pConnection, bool testNames,
                                                      const std::string& owner, TDone done)
{
    std::shared_ptr<TCRegistration> registration(new TCRegistration(std::move(done)));
    const std::int32_t types[] = {GINT32_TO_LE(qor::ICallbacks::POLICY_UPDATE),
                                  GINT32_TO_LE(qor::ICallbacks::REQUEST_PROCESS_INFO)};
    GVariant* pTypes = g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, types, sizeof types, 1);
    g_dbus_connection_call(pConnection, owner.c_str(), tools::ServicePath(testNames),
                           tools::SERVICE_INTERFACE, "Hello", g_variant_new_tuple(&pTypes, 1),
                           nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, ANSWER_LIMIT_MS, nullptr,
                           m_Answered, new std::weak_ptr<TCRegistration>(registration));
    return registration;
}

void TCRegistration::m_Answered(GObject* pConnection, GAsyncResult* pResult, void* pRegistration)
{
    const std::unique_ptr<std::weak_ptr<TCRegistration>> reference(
        static_cast<std::weak_ptr<TCRegistration>*>(pRegistration));
    GError* pError = nullptr;
    const qor::TGlibPtr<GVariant> reply(g_dbus_connection_call_finish(
        reinterpret_cast<GDBusConnection*>(pConnection), pResult, &pError));
    const qor::TGlibPtr<GError> error(pError);
    const auto registration = reference->lock();
    if (!registration || (error && HasLeft(error.get())))
    {
        return; // the watch of the name tells
    }
    if (!error)
    {
        registration->m_done(ERegistration::TAKEN, "");
        return;
    }
    registration->m_done(IsLate(error.get()) ? ERegistration::UNANSWERED : ERegistration::REFUSED,
                         tools::Printable(error->message));
}

} // namespace qorctl
