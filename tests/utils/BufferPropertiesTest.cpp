// The buffer record: its ordering and its shared counter.
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <qor/QORBufferProperties.h>

using qor::TSBufferProperties;

namespace
{

TSBufferProperties Record(unsigned int id, short secondaryId, bool flags = false)
{
    TSBufferProperties record;
    record.Init();
    record.SetBufferId(id);
    record.SetSecondaryId(secondaryId);
    record.SetDestroyed(flags);
    record.SetPersistent(flags);
    return record;
}

TEST(BufferPropertiesTest, InitClearsEveryField)
{
    TSBufferProperties record = Record(7, -7, true);
    record.Init();
    EXPECT_FALSE(record.IsDestroyed());
    EXPECT_FALSE(record.IsPersistent());
    EXPECT_EQ(record.GetBufferId(), 0U);
    EXPECT_EQ(record.GetSecondaryId(), 0);
}

// Few distinct values, so that equal ids are frequent; the flags are noise.
TEST(BufferPropertiesTest, OrderIsAStrictWeakOrderOfUnsignedThenSignedIds)
{
    std::mt19937 random(20240229);
    const unsigned int ids[] = {0, 1, 0x7fffffff, 0x80000000, 0xffffffff};
    const short secondaryIds[] = {-32768, -1, 0, 1, 32767};
    std::vector<TSBufferProperties> records;
    for (int i = 0; i < 60; ++i)
    {
        records.push_back(Record(ids[random() % 5], secondaryIds[random() % 5], random() % 2 == 0));
    }
    TSBufferProperties before = Record(0, 0);
    const auto same = [&](auto& a, auto& b) { return !before(&a, &b) && !before(&b, &a); };
    for (auto& a : records)
    {
        for (auto& b : records)
        {
            ASSERT_EQ(before(&a, &b), std::make_pair(a.GetBufferId(), a.GetSecondaryId()) <
                                          std::make_pair(b.GetBufferId(), b.GetSecondaryId()));
            ASSERT_FALSE(before(&a, &b) && before(&b, &a));
            for (auto& c : records)
            {
                ASSERT_TRUE(!before(&a, &b) || !before(&b, &c) || before(&a, &c));
                ASSERT_TRUE(!same(a, b) || !same(b, c) || same(a, c));
            }
        }
    }
    std::set<TSBufferProperties*, TSBufferProperties> ordered;
    for (auto& record : records)
    {
        ordered.insert(&record);
    }
    EXPECT_LE(ordered.size(), 25U); // one for each pair of ids
}

TEST(BufferPropertiesTest, ConcurrentIdsAreDistinct)
{
    constexpr unsigned int IDS = 5000;
    constexpr unsigned int START = 0xffffffff - 100; // wraps on the way
    volatile unsigned int counter = START;
    std::vector<std::vector<unsigned int>> taken(4);
    std::vector<std::thread> threads;
    for (auto& ids : taken)
    {
        threads.emplace_back(
            [&]
            {
                TSBufferProperties record = Record(0, 5, true);
                for (unsigned int i = 0; i < IDS; ++i)
                {
                    record.SetBufferId(&counter);
                    ids.push_back(record.GetBufferId());
                }
                EXPECT_FALSE(record.IsDestroyed());
                EXPECT_TRUE(record.IsPersistent());
                EXPECT_EQ(record.GetSecondaryId(), 5);
            });
    }
    std::set<unsigned int> distinct;
    for (std::size_t i = 0; i < threads.size(); ++i)
    {
        threads[i].join();
        distinct.insert(taken[i].begin(), taken[i].end());
    }
    EXPECT_EQ(distinct.size(), 4 * IDS);
    EXPECT_EQ(distinct.count(START), 0U); // an id is the value after the increment
    EXPECT_EQ(counter, START + 4 * IDS);
}

} // namespace
