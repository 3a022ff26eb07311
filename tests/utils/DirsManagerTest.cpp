// The decision between the installed policy and one on a USB stick. The program is the USB service.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <usb_device.h>

#include <qor/QORDirsManager.h>

#include "LogCapture.h"
#include "SystemCalls.h"
#include "TemporaryDirectory.h"

using qor::TCDirsManager;
using qortest::LogCapture;

struct usb_device_s
{
    const char* mountPoint;
};

struct usb_device_list_s
{
    int count;
};

namespace
{

const std::string DEFAULT_XML = "/opt/usr/share/vantorix/velkin_qor_policy.xml";

struct UsbService
{
    int listResult = 0;
    int firstResult = 0;
    usb_device_list_s list = {1};
    usb_device_s device = {nullptr};
    int type = 0;
    std::vector<std::string> calls;
};
UsbService usb;

} // namespace

int usb_device_init(void)
{
    usb.calls.push_back("init");
    return 0;
}

int usb_device_fini(void)
{
    usb.calls.push_back("fini");
    return 0;
}

int usb_device_get_device_list(int type, usb_device_list_h* pList)
{
    usb.calls.push_back("list");
    usb.type = type;
    *pList = &usb.list;
    return usb.listResult;
}

int usb_device_list_get_count(usb_device_list_h pList)
{
    usb.calls.push_back("count");
    return pList->count;
}

int usb_device_list_get_first(usb_device_list_h, usb_device_h* pDevice)
{
    usb.calls.push_back("first");
    *pDevice = &usb.device;
    return usb.firstResult;
}

const char* usb_device_get_mountpath(usb_device_h pDevice)
{
    usb.calls.push_back("mountpath");
    return pDevice->mountPoint;
}

namespace
{

const std::string xmlPathAtStart = TCDirsManager::GetPolicyXmlPath();

using TCalls = std::vector<std::string>;
const TCalls ALL_CALLS = {"init", "list", "count", "first", "mountpath", "fini"};

class DirsManagerTest : public testing::Test
{
protected:
    DirsManagerTest()
    {
        usb = UsbService();
        qortest::SystemCalls::Reset();
        qortest::SystemCalls::debugImage = true;
        TCDirsManager::QORMode = 1; // a value that Initialize never writes
        LogCapture::Clear();
    }

    // The last line reports the outcome, whatever it is.
    void ExpectOutcome(const std::string& xmlPath, int mode)
    {
        EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), xmlPath);
        EXPECT_EQ(TCDirsManager::QORMode, mode);
        EXPECT_EQ(TCDirsManager::GetPolicyPath(), "/opt/usr/share/vantorix/");
        const auto lines = LogCapture::Lines();
        ASSERT_FALSE(lines.empty());
        EXPECT_EQ(lines.back().priority, qortest::LOG_DEBUG);
        EXPECT_NE(lines.back().text.find(") > QORMode: " + std::to_string(mode) +
                                         ", policy xml path: " + xmlPath),
                  std::string::npos);
        for (const auto& line : lines)
        {
            EXPECT_EQ(line.text.find("QORDirsManager.cpp: Initialize("), 0U) << line.text;
        }
    }

    qortest::TemporaryDirectory m_stick;
};

TEST_F(DirsManagerTest, ReleaseImageAsksForNoDevices)
{
    EXPECT_EQ(xmlPathAtStart, DEFAULT_XML);
    qortest::SystemCalls::debugImage = false;
    TCDirsManager::Initialize();
    EXPECT_EQ(usb.calls, TCalls());
    EXPECT_EQ(
        LogCapture::Count(qortest::LOG_ERROR, "Release Image! Default dirs will be returned!"), 1U);
    EXPECT_EQ(LogCapture::Lines().size(), 2U);
    ExpectOutcome(DEFAULT_XML, 1);
}

TEST_F(DirsManagerTest, FailuresOfTheUsbServiceKeepDefaultAndMode)
{
    struct
    {
        int listResult, count, firstResult;
        const char* message;
        TCalls calls;
    } const cases[] = {
        {-1, 1, 0, "Cant get usb device list! Default", {"init", "list", "fini"}},
        {0, 0, 0, "No usb devices! Default", {"init", "list", "count", "fini"}},
        {0, -1, 0, "No usb devices! Default", {"init", "list", "count", "fini"}},
        {0, 2, 7, "Cant get first usb device! Default", {"init", "list", "count", "first", "fini"}},
    };
    for (const auto& failure : cases)
    {
        LogCapture::Clear();
        usb = UsbService();
        usb.listResult = failure.listResult;
        usb.list.count = failure.count;
        usb.firstResult = failure.firstResult;
        TCDirsManager::Initialize();
        EXPECT_EQ(usb.type, 8);
        EXPECT_EQ(usb.calls, failure.calls);
        EXPECT_EQ(LogCapture::Count(qortest::LOG_DEBUG, "Debug Image!"), 1U);
        EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, failure.message), 1U) << failure.message;
        ExpectOutcome(DEFAULT_XML, 1);
    }
}

TEST_F(DirsManagerTest, PolicyOnTheStickIsUsedUntilTheStickIsGone)
{
    const auto policy = m_stick.Write("velkin/velkin_qor_policy.xml").string();
    for (const std::string& mountPoint : {m_stick.Path().string(), m_stick.Path().string() + "/"})
    {
        usb.calls.clear();
        usb.device.mountPoint = mountPoint.c_str();
        TCDirsManager::QORMode = 0;
        TCDirsManager::Initialize();
        EXPECT_EQ(usb.calls, ALL_CALLS);
        ExpectOutcome(policy, 2);
    }
    EXPECT_EQ(LogCapture::Count(qortest::LOG_DEBUG, "USB test mode!"), 2U);

    usb.list.count = 0;
    TCDirsManager::Initialize();
    ExpectOutcome(DEFAULT_XML, 2);
}

TEST_F(DirsManagerTest, DirectoryWithThePolicysNameCounts)
{
    const auto policy = m_stick.MakeDirectory("velkin/velkin_qor_policy.xml").string();
    usb.device.mountPoint = m_stick.Path().c_str();
    TCDirsManager::Initialize();
    ExpectOutcome(policy, 2);
}

TEST_F(DirsManagerTest, StickWithoutPolicyResetsTheMode)
{
    m_stick.MakeDirectory("velkin");
    m_stick.Link("loop", "loop");
    const std::string unreadable = (m_stick.Path() / "loop").string();
    for (const char* mountPoint : {m_stick.Path().c_str(), unreadable.c_str(), "/nowhere",
                                   static_cast<const char*>(nullptr)})
    {
        LogCapture::Clear();
        usb.calls.clear();
        usb.device.mountPoint = mountPoint;
        TCDirsManager::QORMode = 2;
        TCDirsManager::Initialize();
        EXPECT_EQ(usb.calls, ALL_CALLS);
        EXPECT_EQ(LogCapture::Count(qortest::LOG_DEBUG, "USB test Policy file is not detected!"),
                  1U);
        ExpectOutcome(DEFAULT_XML, 0);
    }
}

TEST_F(DirsManagerTest, ReadersNeverSeeAHalfWrittenPath)
{
    const auto policy = m_stick.Write("velkin/velkin_qor_policy.xml").string();
    usb.device.mountPoint = m_stick.Path().c_str();
    TCDirsManager::Initialize();
    std::atomic<bool> done(false);
    std::atomic<int> strange(0);
    std::thread reader(
        [&]
        {
            while (!done)
            {
                const std::string path = TCDirsManager::GetPolicyXmlPath();
                strange += path != policy && path != DEFAULT_XML;
            }
        });
    for (int i = 0; i < 500; ++i)
    {
        usb.device.mountPoint = i % 2 == 0 ? "/nowhere" : m_stick.Path().c_str();
        TCDirsManager::Initialize();
    }
    done = true;
    reader.join();
    EXPECT_EQ(strange, 0);
}

} // namespace
