// Who may change the policy, and how times are told.
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "common/Text.h"
#include "qord/Permission.h"

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
    EXPECT_EQ(permission.MayChange(peer), YES);
    peer.m_userId = geteuid() + 12345;
    EXPECT_EQ(permission.MayChange(peer), qord::EPermission::REFUSED);
    peer.m_userId = getpwnam("daemon")->pw_uid; // whose groups the bus may leave out
    EXPECT_EQ(permission.MayChange(peer), YES);
    peer.m_hasGroups = true;
    EXPECT_EQ(permission.MayChange(peer), qord::EPermission::REFUSED);
    peer.m_groupIds = {99999, getgrnam("daemon")->gr_gid};
    EXPECT_EQ(permission.MayChange(peer), YES);
    peer.m_groupIds.clear();
    rules.m_everyone = true;
    EXPECT_EQ(qord::TCPermission(rules, users).MayChange(peer), YES);
    peer.m_isKnown = false;
    EXPECT_EQ(qord::TCPermission(rules, users).MayChange(peer), qord::EPermission::UNKNOWN);
}
