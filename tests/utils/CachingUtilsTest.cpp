// Cached lookups. The program is the platform, and counts what it is asked.
#include <atomic>
#include <chrono>
#include <cstring>
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

std::atomic<int> queries;
int result;
const char* text;
int pauseMs;

char* Answer()
{
    ++queries;
    std::this_thread::sleep_for(std::chrono::milliseconds(pauseMs));
    return text != nullptr ? strdup(text) : nullptr;
}

} // namespace

char* vconf_get_str(const char*)
{
    return Answer();
}

int system_info_get_value_int(system_info_key_e, int* pValue)
{
    ++queries;
    *pValue = 42;
    return result;
}

int system_info_get_value_string(system_info_key_e, char** pValue)
{
    *pValue = Answer();
    return result;
}

namespace
{

// The caches last for the life of the process: every test has keys of its own.
class CachingUtilsTest : public testing::Test
{
protected:
    CachingUtilsTest()
    {
        queries = 0;
        result = 0;
        text = nullptr;
        pauseMs = 0;
        LogCapture::Clear();
    }

    static bool Setting(const std::string& key, std::string& value)
    {
        return TCVelkinCachingUtils::GetVconfCachedString(key, value);
    }

    template <class TValue>
    static bool Information(int key, TValue& value)
    {
        return TCVelkinCachingUtils::GetSystemInfoKeyCached(static_cast<system_info_key_e>(key),
                                                            value);
    }
};

TEST_F(CachingUtilsTest, SettingIsAskedForUntilItHasAnAnswer)
{
    std::string value = "before";
    EXPECT_FALSE(Setting("db/a", value));
    EXPECT_EQ(value, "before");
    text = ""; // which is an answer
    EXPECT_TRUE(Setting("db/a", value));
    text = "later";
    value = "before";
    EXPECT_TRUE(Setting("db/a", value));
    EXPECT_EQ(value, "");
    EXPECT_EQ(queries, 2);

    std::string keyAndValue = "db/b";
    EXPECT_TRUE(Setting(keyAndValue, keyAndValue));
    EXPECT_EQ(keyAndValue, "later");
    EXPECT_TRUE(Setting("db/b", value));
    EXPECT_EQ(queries, 3);
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(CachingUtilsTest, IntegerAndTextOfAKeyAreAskedForUntilTheyHaveAnswers)
{
    int number = 5;
    std::string value = "before";
    EXPECT_FALSE(Information(100, value)); // a success without a text
    result = -1;
    EXPECT_FALSE(Information(100, number));
    EXPECT_EQ(number, 42); // what the platform left there
    EXPECT_FALSE(Information(100, value));
    EXPECT_EQ(value, "before");
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "QORCachingUtils.cpp: GetSystemInfoKeyCached("),
              3U);
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, ") > Fail getting systeminfo value"), 3U);

    result = 0;
    text = "forty-two";
    for (int i = 0; i < 2; ++i)
    {
        number = 0;
        EXPECT_TRUE(Information(100, number));
        EXPECT_TRUE(Information(100, value));
        EXPECT_EQ(number, 42);
        EXPECT_EQ(value, "forty-two");
        text = "";
    }
    EXPECT_EQ(queries, 5);
    EXPECT_EQ(LogCapture::Lines().size(), 3U);
}

TEST_F(CachingUtilsTest, ConcurrentFirstLookupsAskOnce)
{
    text = "answer";
    pauseMs = 50;
    std::atomic<int> right(0);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
    {
        threads.emplace_back(
            [&right]
            {
                std::string setting, value;
                int number = 0;
                const bool ok = Setting("db/concurrent", setting) && Information(300, number) &&
                                Information(300, value);
                right += ok && setting == "answer" && value == "answer" && number == 42;
            });
    }
    for (auto& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(right, 8);
    EXPECT_EQ(queries, 3);
}

} // namespace
