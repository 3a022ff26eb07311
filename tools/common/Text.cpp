// Texts that the tools show: made safe for a terminal or a log, hashes, times, users.
#include "common/Text.h"

#include <memory>
#include <utility>

#include <glib.h>
#include <pwd.h>

#include <qor/GlibTypes.h>

namespace tools
{
namespace
{

using TText = std::unique_ptr<char, void (*)(void*)>;

} // namespace

std::string Printable(const std::string& text)
{
    const TText valid(g_utf8_make_valid(text.data(), static_cast<gssize>(text.size())), g_free);
    std::string printable;
    for (const char* pNext = valid.get(); *pNext != '\0';)
    {
        const char* pCharacter = std::exchange(pNext, g_utf8_next_char(pNext));
        const gunichar character = g_utf8_get_char(pCharacter);
        const bool isSafe = g_unichar_isprint(character) != FALSE && character != 0xFFFD;
        printable += isSafe ? std::string(pCharacter, pNext) : "?";
    }
    return printable;
}

std::string Sha256(std::string_view text)
{
    const TText hash(g_compute_checksum_for_data(G_CHECKSUM_SHA256,
                                                 reinterpret_cast<const guchar*>(text.data()),
                                                 text.size()),
                     g_free);
    return hash.get();
}

std::string LocalTime(std::int64_t seconds)
{
    const std::unique_ptr<GDateTime, void (*)(GDateTime*)> time(
        g_date_time_new_from_unix_local(seconds), g_date_time_unref);
    if (!time)
    {
        return "unknown"; // files may have any time, and the calendar ends with the year 9999
    }
    const TText text(g_date_time_format(time.get(), "%Y-%m-%dT%H:%M:%S%:z"), g_free);
    return text.get();
}

std::string UserName(uid_t userId)
{
    passwd entry = {};
    passwd* pFound = nullptr;
    char buffer[4096];
    getpwuid_r(userId, &entry, buffer, sizeof buffer, &pFound);
    return pFound == nullptr ? std::to_string(userId) : Printable(entry.pw_name);
}

} // namespace tools
