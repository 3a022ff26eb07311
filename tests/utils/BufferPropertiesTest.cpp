// The buffer record: its ordering and its shared counter.
#include <algorithm>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <qor/QORBufferProperties.h>

using qor::TSBufferProperties;

namespace
{

TSBufferProperties Record(unsigned int id, short secondaryId)
{
    TSBufferProperties record;
    record.Init();
    record.SetBufferId(id);
    record.SetSecondaryId(secondaryId);
    return record;
}

TEST(BufferPropertiesTest, InitClearsEveryField)
{
    TSBufferProperties record = Record(7, -7);
    record.SetDestroyed(true);
    record.SetPersistent(true);
    EXPECT_TRUE(record.IsDestroyed());
    EXPECT_TRUE(record.IsPersistent());
    EXPECT_EQ(record.GetBufferId(), 7U);
    EXPECT_EQ(record.GetSecondaryId(), -7);
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
        records.push_back(Record(ids[random() % 5], secondaryIds[random() % 5]));
        records.back().SetDestroyed(random() % 2 == 0);
        records.back().SetPersistent(random() % 2 == 0);
    }
    TSBufferProperties before = Record(0, 0);
    for (auto& a : records)
    {
        ASSERT_FALSE(before(&a, &a));
        for (auto& b : records)
        {
            const bool less = std::make_pair(a.GetBufferId(), a.GetSecondaryId()) <
                              std::make_pair(b.GetBufferId(), b.GetSecondaryId());
            ASSERT_EQ(before(&a, &b), less);
            ASSERT_FALSE(before(&a, &b) && before(&b, &a));
            for (auto& c : records)
            {
                ASSERT_TRUE(!before(&a, &b) || !before(&b, &c) || before(&a, &c));
                const bool equivalent =
                    !before(&a, &b) && !before(&b, &a) && !before(&b, &c) && !before(&c, &b);
                ASSERT_TRUE(!equivalent || (!before(&a, &c) && !before(&c, &a)));
            }
        }
    }
}

TEST(BufferPropertiesTest, RecordsOrderASetOfPointers)
{
    TSBufferProperties last = Record(0xffffffff, 0);
    TSBufferProperties first = Record(0, -1);
    TSBufferProperties second = Record(0, 0);
    TSBufferProperties secondAgain = Record(0, 0);
    std::set<TSBufferProperties*, TSBufferProperties> records = {&last, &second, &first};
    EXPECT_FALSE(records.insert(&secondAgain).second);
    EXPECT_TRUE(std::equal(records.begin(), records.end(),
                           std::vector<TSBufferProperties*>{&first, &second, &last}.begin()));
}

TEST(BufferPropertiesTest, ConcurrentIdsAreDistinct)
{
    constexpr unsigned int THREADS = 4;
    constexpr unsigned int IDS = 5000;
    volatile unsigned int counter = 0xffffffff - 100; // wraps on the way
    std::vector<std::vector<unsigned int>> taken(THREADS);
    std::vector<std::thread> threads;
    for (auto& ids : taken)
    {
        threads.emplace_back(
            [&]
            {
                TSBufferProperties record = Record(0, 5);
                record.SetPersistent(true);
                for (unsigned int i = 0; i < IDS; ++i)
                {
                    record.SetDestroyed(true);
                    record.SetBufferId(&counter);
                    ids.push_back(record.GetBufferId());
                }
                EXPECT_FALSE(record.IsDestroyed());
                EXPECT_TRUE(record.IsPersistent());
                EXPECT_EQ(record.GetSecondaryId(), 5);
            });
    }
    std::set<unsigned int> distinct;
    for (unsigned int i = 0; i < THREADS; ++i)
    {
        threads[i].join();
        distinct.insert(taken[i].begin(), taken[i].end());
    }
    EXPECT_EQ(distinct.size(), THREADS * IDS);
    EXPECT_EQ(counter, 0xffffffff - 100 + THREADS * IDS);
    EXPECT_EQ(distinct.count(0xffffffff - 100), 0U); // an id is the value after the increment
}

} // namespace
