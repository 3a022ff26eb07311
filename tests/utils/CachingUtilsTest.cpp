// Cached lookups. The program is the platform, and counts what it is asked.
#include <atomic>
#include <chrono>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <system_info.h>
#include <vconf.h>

#include <qor/QORCachingUtils.h>

#include "LogCapture.h"

using qor::TCVelkinCachingUtils;
using qortest::LogCapture;

namespace
{

struct Platform
{
    std::atomic<int> queries{0};
    int result = 0;
    const char* text = nullptr;
    int number = 0;
    int pauseMs = 0;
};
Platform platform;

char* Answer()
{
    return platform.text != nullptr ? strdup(platform.text) : nullptr;
}

void CountQuery()
{
    ++platform.queries;
    std::this_thread::sleep_for(std::chrono::milliseconds(platform.pauseMs));
}

} // namespace

char* vconf_get_str(const char*)
{
    CountQuery();
    return Answer();
}

int system_info_get_value_int(system_info_key_e, int* pValue)
{
    CountQuery();
    *pValue = platform.number;
    return platform.result;
}

int system_info_get_value_string(system_info_key_e, char** pValue)
{
    CountQuery();
    if (platform.result == 0)
    {
        *pValue = Answer();
    }
    return platform.result;
}

namespace
{

constexpr char FAILED[] = "Fail getting systeminfo value";

// The caches last for the life of the process: every test has keys of its own.
system_info_key_e Key(int number)
{
    return static_cast<system_info_key_e>(number);
}

class CachingUtilsTest : public testing::Test
{
protected:
    CachingUtilsTest()
    {
        platform.queries = 0;
        platform.result = 0;
        platform.text = nullptr;
        platform.number = 0;
        platform.pauseMs = 0;
        LogCapture::Clear();
    }
};

TEST_F(CachingUtilsTest, SettingIsAskedOnceItHasAnAnswer)
{
    std::string value = "before";
    EXPECT_FALSE(TCVelkinCachingUtils::GetVconfCachedString("db/a", value));
    EXPECT_EQ(value, "before");
    EXPECT_TRUE(LogCapture::Lines().empty());

    platform.text = "first";
    EXPECT_TRUE(TCVelkinCachingUtils::GetVconfCachedString("db/a", value));
    platform.text = "second";
    value.clear();
    EXPECT_TRUE(TCVelkinCachingUtils::GetVconfCachedString("db/a", value));
    EXPECT_EQ(value, "first");
    EXPECT_EQ(platform.queries, 2);

    EXPECT_TRUE(TCVelkinCachingUtils::GetVconfCachedString("db/b", value));
    EXPECT_EQ(value, "second");
}

TEST_F(CachingUtilsTest, EmptySettingIsAnAnswer)
{
    platform.text = "";
    for (int i = 0; i < 2; ++i)
    {
        std::string value = "before";
        EXPECT_TRUE(TCVelkinCachingUtils::GetVconfCachedString("db/empty", value));
        EXPECT_EQ(value, "");
    }
    EXPECT_EQ(platform.queries, 1);
}

TEST_F(CachingUtilsTest, ValueMayBeTheKeyItself)
{
    platform.text = "answer";
    std::string keyAndValue = "db/alias";
    EXPECT_TRUE(TCVelkinCachingUtils::GetVconfCachedString(keyAndValue, keyAndValue));
    EXPECT_EQ(keyAndValue, "answer");
    std::string value;
    EXPECT_TRUE(TCVelkinCachingUtils::GetVconfCachedString("db/alias", value));
    EXPECT_EQ(platform.queries, 1);
}

TEST_F(CachingUtilsTest, IntegerAndTextOfAKeyAreCachedApart)
{
    platform.number = 42;
    platform.text = "forty-two";
    for (int i = 0; i < 2; ++i)
    {
        int number = 0;
        std::string text;
        EXPECT_TRUE(TCVelkinCachingUtils::GetSystemInfoKeyCached(Key(100), number));
        EXPECT_TRUE(TCVelkinCachingUtils::GetSystemInfoKeyCached(Key(100), text));
        EXPECT_EQ(number, 42);
        EXPECT_EQ(text, "forty-two");
        platform.number = 0;
        platform.text = "";
    }
    EXPECT_EQ(platform.queries, 2);
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(CachingUtilsTest, FailedSystemInformationIsLoggedAndAskedAgain)
{
    int number = 5;
    std::string text = "before";
    platform.result = -1;
    platform.number = 17;
    EXPECT_FALSE(TCVelkinCachingUtils::GetSystemInfoKeyCached(Key(200), number));
    EXPECT_EQ(number, 17); // what the platform left there
    EXPECT_FALSE(TCVelkinCachingUtils::GetSystemInfoKeyCached(Key(200), text));
    platform.result = 0; // and a null text
    EXPECT_FALSE(TCVelkinCachingUtils::GetSystemInfoKeyCached(Key(200), text));
    EXPECT_EQ(text, "before");
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, FAILED), 3U);
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "QORCachingUtils.cpp: GetSystemInfoKeyCached("),
              3U);

    platform.text = "now";
    EXPECT_TRUE(TCVelkinCachingUtils::GetSystemInfoKeyCached(Key(200), number));
    EXPECT_TRUE(TCVelkinCachingUtils::GetSystemInfoKeyCached(Key(200), text));
    EXPECT_EQ(text, "now");
    EXPECT_EQ(platform.queries, 5);
}

TEST_F(CachingUtilsTest, ConcurrentFirstLookupsAskOnce)
{
    platform.text = "answer";
    platform.number = 9;
    platform.pauseMs = 50;
    std::atomic<int> right(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
    {
        threads.emplace_back(
            [&right]
            {
                std::string setting, text;
                int number = 0;
                const bool ok =
                    TCVelkinCachingUtils::GetVconfCachedString("db/concurrent", setting) &&
                    TCVelkinCachingUtils::GetSystemInfoKeyCached(Key(300), number) &&
                    TCVelkinCachingUtils::GetSystemInfoKeyCached(Key(300), text);
                right += ok && setting == "answer" && text == "answer" && number == 9;
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(right, 8);
    EXPECT_EQ(platform.queries, 3);
}

} // namespace
