// Why a message has failed, and how a caller stops waiting for it.
#include "QORSendResult.h"

#include <cstring>

namespace qor
{

namespace
{

constexpr std::size_t MAX_TEXT = 1000;

struct TSErrorName
{
    const char* m_name; // one that ends in a dot stands for all that begin with it
    ESendStatus m_status;
};

constexpr TSErrorName ERROR_NAMES[] = {
    {"org.freedesktop.DBus.Error.ServiceUnknown", ESendStatus::NO_SERVICE},
    {"org.freedesktop.DBus.Error.NameHasNoOwner", ESendStatus::NO_SERVICE},
    {"org.freedesktop.DBus.Error.Spawn.", ESendStatus::NO_SERVICE},
    {"org.freedesktop.DBus.Error.TimedOut", ESendStatus::NO_SERVICE}, // it did not start in time
    {"org.freedesktop.systemd1.", ESendStatus::NO_SERVICE},           // its unit did not start
    {"org.freedesktop.DBus.Error.NoReply", ESendStatus::NO_ANSWER},
    {"org.freedesktop.DBus.Error.AccessDenied", ESendStatus::FORBIDDEN},
    {"org.freedesktop.DBus.Error.AuthFailed", ESendStatus::FORBIDDEN},
    {"org.freedesktop.DBus.Error.LimitsExceeded", ESendStatus::LIMIT},
};

bool IsMeant(const char* name, const char* pattern)
{
    const std::size_t length = std::strlen(pattern);
    return pattern[length - 1] == '.' ? std::strncmp(name, pattern, length) == 0
                                      : std::strcmp(name, pattern) == 0;
}

ESendStatus StatusOfName(const char* name)
{
    for (const TSErrorName& known : ERROR_NAMES)
    {
        if (IsMeant(name, known.m_name))
        {
            return known.m_status;
        }
    }
    return ESendStatus::FAILED;
}

ESendStatus StatusOfCode(int code)
{
    switch (code)
    {
    case G_IO_ERROR_TIMED_OUT:
        return ESendStatus::NO_ANSWER;
    case G_IO_ERROR_MESSAGE_TOO_LARGE:
        return ESendStatus::TOO_LARGE;
    case G_IO_ERROR_CLOSED:
    case G_IO_ERROR_NOT_CONNECTED:
        return ESendStatus::NO_BUS;
    case G_IO_ERROR_CANCELLED:
        return ESendStatus::CANCELLED;
    default:
        return ESendStatus::FAILED;
    }
}

// The words of a foreign process may be shown on a terminal, so they can do nothing there but be
// read.
std::string Printable(const std::string& text)
{
    std::string result;
    const char* pEnd = text.data() + text.size();
    for (const char* p = text.data(); p < pEnd;)
    {
        const gunichar character = g_utf8_get_char_validated(p, pEnd - p);
        const bool isValid = character < 0x110000; // else one of two values that say what is wrong
        const char* pNext = isValid ? g_utf8_next_char(p) : p + 1;
        const std::string piece =
            isValid && g_unichar_isprint(character) ? std::string(p, pNext) : "?";
        if (result.size() + piece.size() > MAX_TEXT)
        {
            break;
        }
        result += piece;
        p = pNext;
    }
    return result;
}

} // namespace

TCCancellation::TCCancellation() : m_isCancelled(std::make_shared<std::atomic<bool>>(false)) {}

void TCCancellation::Cancel()
{
    *m_isCancelled = true;
}

bool TCCancellation::IsCancelled() const
{
    return *m_isCancelled;
}

void SetFailure(const GError& error, TSSendResult& result)
{
    result.m_status = StatusOfCode(error.code);
    result.m_code = error.code;
    result.m_text = Printable(error.message);
}

void SetFailure(GDBusMessage* pErrorReply, int code, TSSendResult& result)
{
    const char* name = g_dbus_message_get_error_name(pErrorReply);
    const char* words = g_dbus_message_get_arg0(pErrorReply);
    result.m_status = StatusOfName(name == nullptr ? "" : name);
    result.m_code = code;
    result.m_text = Printable(std::string(name == nullptr ? "an error without a name" : name) +
                              (words == nullptr ? "" : std::string(": ") + words));
}

} // namespace qor
