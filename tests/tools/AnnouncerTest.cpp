// Events become due at most once, and none waits in its announcer's way.
#include <future>
#include <vector>

#include <gtest/gtest.h>

#include "qord/Announcer.h"

namespace
{

// Deliveries that last until the test lets them end.
class SlowClient
{
public:
    void Deliver(int type)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_begun.push_back(type);
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_allowed >= m_begun.size(); });
    }

    void Allow(std::size_t deliveries)
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_allowed = deliveries;
        m_changed.notify_all();
    }

    std::vector<int> WaitForBegun(std::size_t deliveries)
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, std::chrono::seconds(30),
                           [this, deliveries] { return m_begun.size() >= deliveries; });
        return m_begun;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<int> m_begun;
    std::size_t m_allowed = 0;
};

TEST(Announcer, AnnouncementsDuringADeliveryMakeOneMoreFollow)
{
    SlowClient client;
    qord::TCAnnouncer announcer([&client](int type) { client.Deliver(type); });
    announcer.Announce(2);
    ASSERT_EQ(client.WaitForBegun(1), std::vector<int>({2}));
    for (int repeat = 0; repeat < 3; ++repeat)
    {
        announcer.Announce(2);
        announcer.Announce(4);
    }
    client.Allow(3);
    EXPECT_EQ(client.WaitForBegun(3), std::vector<int>({2, 2, 4}));
    // A fourth of the old announcements would come before this one.
    announcer.Announce(7);
    EXPECT_EQ(client.WaitForBegun(4), std::vector<int>({2, 2, 4, 7}));
    client.Allow(4);
}

TEST(Announcer, EndWaitsForTheDeliveryUnderWayAndDropsTheRest)
{
    // Whether the end has begun cannot be seen from outside. Where it was late, the rest was not
    // dropped, and another attempt tells more.
    bool dropped = false;
    for (int attempt = 0; attempt < 50 && !dropped; ++attempt)
    {
        SlowClient client;
        auto announcer =
            std::make_unique<qord::TCAnnouncer>([&client](int type) { client.Deliver(type); });
        announcer->Announce(2);
        client.WaitForBegun(1);
        announcer->Announce(4);
        std::future<void> end = std::async(std::launch::async, [&announcer] { announcer.reset(); });
        EXPECT_EQ(end.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
        client.Allow(2);
        ASSERT_EQ(end.wait_for(std::chrono::seconds(30)), std::future_status::ready);
        dropped = client.WaitForBegun(1) == std::vector<int>({2});
    }
    EXPECT_TRUE(dropped);
}

} // namespace
