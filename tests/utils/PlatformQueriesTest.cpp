// Cached lookups, and the choice between the installed policy and one on a USB stick. The program
// is the platform, and counts what it is asked.
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include <system_info.h>
#include <usb_device.h>
#include <vconf.h>

#include <qor/QORCachingUtils.h>
#include <qor/QORDirsManager.h>

#include "LogCapture.h"
#include "Tree.h"

using qor::TCDirsManager;
using qortest::LogCapture;

namespace
{

std::atomic<int> queries;
int result;
const char* text;

struct Usb
{
    bool debugImage; // whether there is /etc/debug
    int listResult, count, firstResult;
    const char* mountPoint;
};
Usb usb;
std::string calls;

// Late enough for others to ask meanwhile.
char* Answer()
{
    ++queries;
    usleep(20000);
    return text != nullptr ? strdup(text) : nullptr;
}

} // namespace

#define QORTEST_PLATFORM(type, name, parameters, ...)                                              \
    type name parameters                                                                           \
    {                                                                                              \
        return __VA_ARGS__;                                                                        \
    }

QORTEST_PLATFORM(char*, vconf_get_str, (const char*), Answer())
QORTEST_PLATFORM(int, system_info_get_value_int, (system_info_key_e, int* pValue), ++queries,
                 *pValue = 42, result)
QORTEST_PLATFORM(int, system_info_get_value_string, (system_info_key_e, char** pValue),
                 *pValue = Answer(), result)
QORTEST_PLATFORM(int, usb_device_init, (), calls += "init ", 0)
QORTEST_PLATFORM(int, usb_device_fini, (), calls += "fini", 0)
QORTEST_PLATFORM(int, usb_device_get_device_list, (int type, usb_device_list_h*),
                 calls += "list-" + std::to_string(type) + " ", usb.listResult)
QORTEST_PLATFORM(int, usb_device_list_get_count, (usb_device_list_h), usb.count)
QORTEST_PLATFORM(int, usb_device_list_get_first, (usb_device_list_h, usb_device_h*),
                 calls += "first ", usb.firstResult)
QORTEST_PLATFORM(const char*, usb_device_get_mountpath, (usb_device_h), calls += "path ",
                 usb.mountPoint)

extern "C" __attribute__((visibility("default"))) int stat(const char* path,
                                                           struct stat* pStatus) noexcept
{
    static const auto real = reinterpret_cast<decltype(&stat)>(dlsym(RTLD_NEXT, "stat"));
    return real(strcmp(path, "/etc/debug") != 0 ? path : usb.debugImage ? "/" : "", pStatus);
}

// The caches last for the life of the process: no key is used twice.
static std::string Lookup(int key)
{
    using qor::TCVelkinCachingUtils;
    std::string setting = "-", value = "-";
    int number = 0;
    const auto infoKey = static_cast<system_info_key_e>(key);
    TCVelkinCachingUtils::GetSystemInfoKeyCached(infoKey, number);
    return (TCVelkinCachingUtils::GetVconfCachedString(std::to_string(key), setting) ? "" : "no ") +
           setting + " " +
           (TCVelkinCachingUtils::GetSystemInfoKeyCached(infoKey, value) ? "" : "no ") + value +
           " " + std::to_string(number);
}

TEST(CachingUtils, KeysAreAskedForUntilTheyHaveAnswersAndByOneThreadOnly)
{
    LogCapture::Clear();
    result = -1;
    EXPECT_EQ(Lookup(100), "no - no - 42");
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Fail getting systeminfo value"), 2U);
    EXPECT_EQ(LogCapture::Lines().size(), 2U); // none of the setting
    result = queries = 0;
    text = ""; // which is an answer
    EXPECT_EQ(Lookup(100), "  42");
    text = "text";
    const auto look = []
    {
        EXPECT_EQ(Lookup(100), "  42");
        EXPECT_EQ(Lookup(101), "text text 42");
    };
    std::thread threads[] = {std::thread(look), std::thread(look), std::thread(look)};
    for (auto& thread : threads)
    {
        thread.join();
    }
    EXPECT_EQ(queries, 6);
}

TEST(DirsManager, PolicyOnTheFirstStickIsUsedOnDebugImages)
{
    const std::string standard = "/opt/usr/share/vantorix/velkin_qor_policy.xml";
    EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), standard);
    const qortest::Tree tree;
    const std::string policy = tree.Write("velkin/velkin_qor_policy.xml"), stick = tree.At();
    const std::string mounted = "init list-8 first path fini", unlisted = "init list-8 fini";
    const struct
    {
        Usb usb;
        int mode; // from 1, which the library never writes
        std::string path, calls;
    } cases[] = {
        {{false, 0, 1, 0, stick.c_str()}, 1, standard, ""},
        {{true, 0, 1, 0, stick.c_str()}, 2, policy, mounted},
        {{true, -1, 1, 0, stick.c_str()}, 1, standard, unlisted}, // the stick is gone
        {{true, 0, 0, 0, stick.c_str()}, 1, standard, unlisted},
        {{true, 0, -1, 0, stick.c_str()}, 1, standard, unlisted},
        {{true, 0, 1, 7, stick.c_str()}, 1, standard, "init list-8 first fini"},
        {{true, 0, 1, 0, "/nowhere"}, 0, standard, mounted},
        {{true, 0, 1, 0, nullptr}, 0, standard, mounted}, // not mounted
    };
    for (const auto& expected : cases)
    {
        usb = expected.usb;
        calls.clear();
        LogCapture::Clear();
        TCDirsManager::QORMode = 1;
        TCDirsManager::Initialize();
        SCOPED_TRACE(&expected - cases);
        EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), expected.path);
        EXPECT_EQ(TCDirsManager::QORMode, expected.mode);
        EXPECT_EQ(calls, expected.calls);
        EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Default dirs will be returned!"),
                  expected.mode == 1 ? 1U : 0U);
    }
}
