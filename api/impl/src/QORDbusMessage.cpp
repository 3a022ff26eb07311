// Questions that the endpoints ask about a D-Bus message.
#include "QORDbusMessage.h"

#include <cstring>
#include <memory>

namespace qor
{

namespace
{

constexpr const char* ERROR_PREFIX = "org.freedesktop.DBus.Error.";
constexpr int LAST_ERROR = G_DBUS_ERROR_PROPERTY_READ_ONLY;

int ErrorCode(const char* name)
{
    if (name != nullptr && std::strncmp(name, ERROR_PREFIX, std::strlen(ERROR_PREFIX)) == 0)
    {
        for (int code = 0; code <= LAST_ERROR; ++code)
        {
            const GError known{G_DBUS_ERROR, code, nullptr};
            const std::unique_ptr<char, void (*)(void*)> knownName(
                g_dbus_error_encode_gerror(&known), &g_free);
            if (std::strcmp(knownName.get(), name) == 0)
            {
                return code;
            }
        }
    }
    return G_IO_ERROR_DBUS_ERROR;
}

} // namespace

std::size_t BodySize(GDBusMessage* pMessage)
{
    GVariant* pBody = g_dbus_message_get_body(pMessage);
    return pBody == nullptr ? 0 : g_variant_get_size(pBody);
}

bool WantsAnswer(GDBusMessage* pCall)
{
    return (g_dbus_message_get_flags(pCall) & G_DBUS_MESSAGE_FLAGS_NO_REPLY_EXPECTED) == 0;
}

bool IsErrorReply(GDBusMessage* pMessage, int& code)
{
    if (g_dbus_message_get_message_type(pMessage) != G_DBUS_MESSAGE_TYPE_ERROR)
    {
        return false;
    }
    code = ErrorCode(g_dbus_message_get_error_name(pMessage));
    return true;
}

} // namespace qor
