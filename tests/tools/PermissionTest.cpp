// Who may change the policy, how times are told, and what the service promises its manager.
#include <grp.h>
#include <pwd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <csignal>
#include <thread>

#include <glib.h>
#include <gtest/gtest.h>

#include "MainContext.h"
#include "common/Text.h"
#include "qord/Permission.h"
#include "qord/StopSignals.h"
#include "qord/Watchdog.h"

TEST(Text, EveryTimeOfAFileHasWords)
{
    EXPECT_EQ(tools::LocalTime(1764000000).substr(0, 9), "2025-11-2");
    EXPECT_EQ(tools::LocalTime(253402300800 + 86400), "unknown"); // in the year 10000
}

TEST(Permission, RootTheServicesUserAndGroupsMayChange)
{
    qord::TSPermissionRules rules;
    rules.m_groups = {"no-such-group", "daemon"};
    qord::TCUserDatabase users;
    const qord::TCPermission permission(rules, users);
    constexpr auto YES = qord::EPermission::GRANTED;
    qor::TSPeer peer;
    peer.m_isKnown = true;
    const auto mayChange = [&] // as soon as the users are known
    {
        auto permitted = qord::EPermission::UNKNOWN;
        qortest::WaitUntil(
            [&]
            {
                permitted = permission.MayChange(peer);
                return permitted != qord::EPermission::UNKNOWN;
            });
        return permitted;
    };
    EXPECT_EQ(mayChange(), YES);
    peer.m_userId = geteuid() + 12345;
    EXPECT_EQ(mayChange(), qord::EPermission::REFUSED);
    const auto asService = [&] // not as root, where that can be: a thread may have its own user
    {
        syscall(SYS_setresuid, -1, peer.m_userId, -1);
        peer.m_userId = geteuid();
        EXPECT_EQ(mayChange(), YES);
    };
    std::thread(asService).join();
    peer.m_userId = getpwnam("daemon")->pw_uid; // whose groups the bus may leave out
    EXPECT_EQ(mayChange(), YES);
    peer.m_hasGroups = true;
    EXPECT_EQ(mayChange(), qord::EPermission::REFUSED);
    peer.m_groupIds = {99999, getgrnam("daemon")->gr_gid};
    EXPECT_EQ(mayChange(), YES);
    peer.m_groupIds.clear();
    rules.m_everyone = true;
    EXPECT_EQ(qord::TCPermission(rules, users).MayChange(peer), YES);
    peer.m_isKnown = false;
    EXPECT_EQ(qord::TCPermission(rules, users).MayChange(peer), qord::EPermission::UNKNOWN);
}

TEST(Watchdog, TellsTwiceAsOftenAsTheManagerWantsToHear)
{
    setenv("NOTIFY_SOCKET", "/nowhere", 1);
    setenv("WATCHDOG_USEC", "60000000", 1);
    qord::TCWatchdog watchdog([] { return ""; });
    GSource* const pTimer = g_main_context_find_source_by_user_data(nullptr, &watchdog);
    ASSERT_NE(pTimer, nullptr);
    EXPECT_LE(g_source_get_ready_time(pTimer) - g_get_monotonic_time(), 30 * G_TIME_SPAN_SECOND);
}

TEST(StopSignals, EndTheProcessWhereTheStopTakesTooLong)
{
    const auto hang = []
    {
        alarm(20);
        const qord::TCStopSignals signals([] { g_usleep(100 * G_USEC_PER_SEC); }, 100);
        raise(SIGTERM);
        g_main_context_iteration(nullptr, TRUE);
    };
    EXPECT_EXIT(hang(), testing::KilledBySignal(SIGTERM), "");
}
