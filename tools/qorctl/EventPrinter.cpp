// Prints the lines of qorctl listen.
#include "qorctl/EventPrinter.h"

#include <cstdio>
#include <memory>

#include <glib.h>

#include "common/Output.h"
#include "qorctl/Json.h"

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

void TCEventPrinter::Print(const std::string& event, const std::string& words) const
{
    if (m_json)
    {
        PrintJsonLine({{"time", Now()}, {"event", event}});
        return;
    }
    tools::Print(Now() + ' ' + words + '\n');
}

} // namespace qorctl
