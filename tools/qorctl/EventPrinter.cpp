// Prints the lines of qorctl listen.
#include "qorctl/EventPrinter.h"

#include <cstdio>
#include <memory>

#include <glib.h>

namespace qorctl
{
namespace
{

std::string Now()
{
    const std::unique_ptr<GDateTime, void (*)(GDateTime*)> now(g_date_time_new_now_local(),
                                                               g_date_time_unref);
    const std::unique_ptr<char, void (*)(void*)> seconds(
        g_date_time_format(now.get(), "%Y-%m-%dT%H:%M:%S"), g_free);
    const std::unique_ptr<char, void (*)(void*)> zone(g_date_time_format(now.get(), "%:z"), g_free);
    char milliseconds[16];
    std::snprintf(milliseconds, sizeof milliseconds, ".%03d",
                  g_date_time_get_microsecond(now.get()) / 1000);
    return std::string(seconds.get()) + milliseconds + zone.get();
}

} // namespace

TCEventPrinter::TCEventPrinter(bool json) : m_json(json) {}

// Neither events nor unique bus names hold a character that JSON would want escaped.
void TCEventPrinter::PrintEvent(const char* event) const
{
    std::printf(m_json ? "{\"time\":\"%s\",\"event\":\"%s\"}\n" : "%s %s\n", Now().c_str(), event);
    std::fflush(stdout);
}

void TCEventPrinter::PrintService(const std::string& owner) const
{
    if (owner.empty())
    {
        PrintEvent(m_json ? "service-vanished" : "service vanished");
        return;
    }
    std::printf(m_json ? "{\"time\":\"%s\",\"event\":\"service-appeared\",\"owner\":\"%s\"}\n"
                       : "%s service appeared as %s\n",
                Now().c_str(), owner.c_str());
    std::fflush(stdout);
}

} // namespace qorctl
