// The decision between the installed policy and one on a USB stick. The program is the USB service.
#include <atomic>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <usb_device.h>

#include <qor/QORDirsManager.h>

#include "Logged.h"
#include "SystemCalls.h"
#include "TemporaryDirectory.h"

using qor::TCDirsManager;
using qortest::TLines;

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
const std::string xmlPathAtStart = TCDirsManager::GetPolicyXmlPath();

struct UsbService
{
    int listResult = 0;
    usb_device_list_s list = {1};
    int firstResult = 0;
    usb_device_s device = {nullptr};
    std::string calls;
};
UsbService usb;

} // namespace

int usb_device_init(void)
{
    usb.calls += "init ";
    return 0;
}

int usb_device_fini(void)
{
    usb.calls += "fini";
    return 0;
}

int usb_device_get_device_list(int type, usb_device_list_h* pList)
{
    usb.calls += "list-" + std::to_string(type) + " ";
    *pList = &usb.list;
    return usb.listResult;
}

int usb_device_list_get_count(usb_device_list_h pList)
{
    return pList->count;
}

int usb_device_list_get_first(usb_device_list_h, usb_device_h* pDevice)
{
    usb.calls += "first ";
    *pDevice = &usb.device;
    return usb.firstResult;
}

const char* usb_device_get_mountpath(usb_device_h pDevice)
{
    usb.calls += "mountpath ";
    return pDevice->mountPoint;
}

namespace
{

class DirsManagerTest : public testing::Test
{
protected:
    DirsManagerTest()
    {
        usb = UsbService();
        qortest::systemCalls.debugImage = true;
    }

    // Starts from a mode that the library never writes, or from the given one.
    static void Initialize(int mode = 1)
    {
        qortest::LogCapture::Clear();
        usb.calls.clear();
        TCDirsManager::QORMode = mode;
        TCDirsManager::Initialize();
    }

    // The last line reports the outcome, the one before it the reason.
    static void ExpectOutcome(const std::string& reason, const std::string& xmlPath, int mode)
    {
        EXPECT_EQ(TCDirsManager::GetPolicyXmlPath(), xmlPath);
        EXPECT_EQ(TCDirsManager::QORMode, mode);
        EXPECT_EQ(TCDirsManager::GetPolicyPath(), "/opt/usr/share/vantorix/");
        TLines expected = {reason,
                           "D QORMode: " + std::to_string(mode) + ", policy xml path: " + xmlPath};
        if (qortest::systemCalls.debugImage)
        {
            expected.insert(expected.begin(), "D Debug Image!");
        }
        EXPECT_EQ(qortest::Logged("QORDirsManager.cpp: Initialize("), expected);
    }

    qortest::TemporaryDirectory m_stick;
    const std::string stick = m_stick.At("");
};

TEST_F(DirsManagerTest, ReleaseImageAsksForNoDevices)
{
    EXPECT_EQ(xmlPathAtStart, DEFAULT_XML);
    qortest::systemCalls.debugImage = false;
    Initialize();
    EXPECT_EQ(usb.calls, "");
    ExpectOutcome("E Release Image! Default dirs will be returned!", DEFAULT_XML, 1);
}

TEST_F(DirsManagerTest, FailuresOfTheUsbServiceKeepDefaultAndMode)
{
    usb.firstResult = 7;
    Initialize();
    EXPECT_EQ(usb.calls, "init list-8 first fini");
    ExpectOutcome("E Cant get first usb device! Default dirs will be returned!", DEFAULT_XML, 1);
    for (int count : {0, -1})
    {
        usb.list.count = count;
        Initialize();
        EXPECT_EQ(usb.calls, "init list-8 fini");
        ExpectOutcome("E No usb devices! Default dirs will be returned!", DEFAULT_XML, 1);
    }
    usb.listResult = -1;
    Initialize();
    EXPECT_EQ(usb.calls, "init list-8 fini");
    ExpectOutcome("E Cant get usb device list! Default dirs will be returned!", DEFAULT_XML, 1);
}

TEST_F(DirsManagerTest, PolicyOnTheStickIsUsedUntilTheStickIsGone)
{
    // Anything of that name counts.
    const auto policy = m_stick.MakeDirectory("velkin/velkin_qor_policy.xml");
    for (const std::string& mountPoint : {stick, stick + "/"})
    {
        usb.device.mountPoint = mountPoint.c_str();
        Initialize();
        EXPECT_EQ(usb.calls, "init list-8 first mountpath fini");
        ExpectOutcome("D USB test mode!", policy, 2);
    }
    usb.list.count = 0;
    Initialize(TCDirsManager::QORMode);
    ExpectOutcome("E No usb devices! Default dirs will be returned!", DEFAULT_XML, 2);
}

TEST_F(DirsManagerTest, StickWithoutPolicyResetsTheMode)
{
    const std::string unreadable = m_stick.Link("loop", "loop");
    const char* const notMounted = nullptr;
    for (const char* mountPoint : {stick.c_str(), unreadable.c_str(), notMounted})
    {
        usb.device.mountPoint = mountPoint;
        Initialize(2);
        EXPECT_EQ(usb.calls, "init list-8 first mountpath fini");
        ExpectOutcome("D USB test Policy file is not detected!", DEFAULT_XML, 0);
    }
}

TEST_F(DirsManagerTest, ReadersNeverSeeAHalfWrittenPath)
{
    const auto policy = m_stick.Write("velkin/velkin_qor_policy.xml");
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
        usb.device.mountPoint = i % 2 == 0 ? stick.c_str() : "/nowhere";
        Initialize();
    }
    done = true;
    reader.join();
    EXPECT_EQ(strange, 0);
}

} // namespace
