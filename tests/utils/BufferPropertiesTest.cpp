// The buffer record: its ordering and its shared counter.
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include <qor/QORBufferProperties.h>

// Few distinct values, so that equal ids are frequent; the flags are noise.
TEST(BufferProperties, OrderIsAStrictWeakOrderOfUnsignedThenSignedIds)
{
    std::mt19937 random(20240229);
    const unsigned int ids[] = {0, 0x7fffffff, 0x80000000, 0xffffffff};
    std::vector<qor::TSBufferProperties> records(60);
    for (auto& record : records)
    {
        record.Init();
        record.SetBufferId(ids[random() % 4]);
        record.SetSecondaryId(static_cast<short>(random() % 3 - 1));
        record.SetDestroyed(random() % 2 == 0);
        record.SetPersistent(random() % 2 == 0);
    }
    for (auto& a : records)
    {
        for (auto& b : records)
        {
            ASSERT_EQ(a(&a, &b), std::make_pair(a.GetBufferId(), a.GetSecondaryId()) <
                                     std::make_pair(b.GetBufferId(), b.GetSecondaryId()));
        }
    }
}

TEST(BufferProperties, ConcurrentIdsAreDistinct)
{
    volatile unsigned int counter = 0xffffffff - 100; // wraps on the way
    std::vector<unsigned int> ids(20000);
    const auto take = [&](std::size_t first)
    {
        for (qor::TSBufferProperties record; first < ids.size(); first += 2)
        {
            record.SetBufferId(&counter);
            ids[first] = record.GetBufferId();
        }
    };
    std::thread other(take, 0);
    take(1);
    other.join();
    const std::set<unsigned int> distinct(ids.begin(), ids.end());
    EXPECT_EQ(distinct.size(), 20000U);
    // an id is the value after the increment
    EXPECT_EQ(distinct.count(0xffffffff - 100), 0U);
}
