// The host layer against a machine that the test makes up.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include <dlog.h>
#include <system_info.h>
#include <usb_device.h>
#include <vconf.h>

#include "LogCapture.h"
#include "TemporaryDirectory.h"

using qortest::LogCapture;

namespace
{

// What was sent to the log daemon, and the errors that it answers first.
struct Daemon
{
    std::vector<int> errors;
    std::vector<std::string> lines;
    std::string path;
    int flags = 0;
};
Daemon logDaemon;

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t
sendto(int, const void* pData, size_t length, int flags, const sockaddr* pAddress, socklen_t)
{
    if (!logDaemon.errors.empty())
    {
        errno = logDaemon.errors.front();
        logDaemon.errors.erase(logDaemon.errors.begin());
        return -1;
    }
    logDaemon.lines.emplace_back(static_cast<const char*>(pData), length);
    logDaemon.path = reinterpret_cast<const sockaddr_un*>(pAddress)->sun_path;
    logDaemon.flags = flags;
    return static_cast<ssize_t>(length);
}

namespace
{

// A string that the platform hands over; "(none)" for null.
std::string Take(char* pText)
{
    const std::unique_ptr<char, decltype(&free)> owner(pText, &free);
    return pText != nullptr ? pText : "(none)";
}

class HostLayerTest : public testing::Test
{
protected:
    HostLayerTest()
    {
        setenv("QOR_HOST_ROOT", m_root.Path().c_str(), 1);
        LogCapture::Clear();
    }
    ~HostLayerTest() override
    {
        unsetenv("QOR_HOST_ROOT");
        unsetenv("QOR_VCONF_FILE");
    }

    // The platform log itself: this program's own definition stands before it.
    static decltype(&__dlog_print) PlatformLog()
    {
        void* pLibrary = dlopen(QOR_PLATFORM_SONAME, RTLD_NOW | RTLD_NOLOAD);
        return reinterpret_cast<decltype(&__dlog_print)>(dlsym(pLibrary, "__dlog_print"));
    }

    void Settings(const std::string& text)
    {
        setenv("QOR_VCONF_FILE", m_root.Write("settings.ini", text).c_str(), 1);
    }

    // A disk with one partition, as sysfs shows it.
    void Disk(const std::string& bus, const std::string& name)
    {
        const std::string device = "devices/" + bus + "/host0/block/" + name;
        m_root.Write("sys/" + device + "/" + name + "1/partition", "1");
        m_root.MakeDirectory("sys/class/block");
        m_root.Link("sys/class/block/" + name, "../../" + device);
        m_root.Link("sys/class/block/" + name + "1", "../../" + device + "/" + name + "1");
    }

    static int Count()
    {
        usb_device_list_h list = nullptr;
        EXPECT_EQ(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0);
        return usb_device_list_get_count(list);
    }

    static std::string FirstMountPath()
    {
        usb_device_list_h list = nullptr;
        usb_device_h device = nullptr;
        EXPECT_EQ(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0);
        EXPECT_EQ(usb_device_list_get_first(list, &device), 0);
        const char* path = usb_device_get_mountpath(device);
        return path != nullptr ? path : "(none)";
    }

    qortest::TemporaryDirectory m_root;
};

TEST_F(HostLayerTest, LogLinesGoToTheLogDaemon)
{
    logDaemon = Daemon();
    const auto print = PlatformLog();
    errno = ERANGE;
    const int written = print(LOG_ID_SYSTEM, DLOG_ERROR, "QOR", "number %d", 3);
    const std::string process = "[" + std::to_string(getpid()) + "]: ";
    ASSERT_EQ(logDaemon.lines.size(), 1U);
    EXPECT_EQ(logDaemon.lines[0], "<27>QOR" + process + "number 3");
    EXPECT_EQ(static_cast<std::size_t>(written), logDaemon.lines[0].size());
    EXPECT_EQ(logDaemon.path, "/dev/log");
    EXPECT_EQ(logDaemon.flags, MSG_DONTWAIT | MSG_NOSIGNAL);

    print(LOG_ID_MAIN, DLOG_INFO, "X", "%s", std::string(100000, 'x').c_str());
    EXPECT_EQ(logDaemon.lines[1].find("<14>X" + process + "xxx"), 0U);
    EXPECT_LE(logDaemon.lines[1].size(), 4096U);

    // A daemon that is away costs the line, a descriptor that the host has closed does not.
    logDaemon.errors = {ECONNREFUSED};
    EXPECT_EQ(print(LOG_ID_SYSTEM, DLOG_DEBUG, "QOR", "lost"), 0);
    logDaemon.errors = {EBADF};
    EXPECT_GT(print(LOG_ID_SYSTEM, DLOG_DEBUG, "QOR", "kept"), 0);
    EXPECT_EQ(logDaemon.lines.size(), 3U);
    EXPECT_EQ(logDaemon.lines[2], "<31>QOR" + process + "kept");
    EXPECT_EQ(errno, ERANGE);
}

TEST_F(HostLayerTest, SettingsAreFoundByPath)
{
    Settings("[db/setting]\nname=a b\nempty=\n[vconf]\nplain=p\n[x]\nbad=\\q\n");
    EXPECT_EQ(Take(vconf_get_str("db/setting/name")), "a b");
    EXPECT_EQ(Take(vconf_get_str("/db/setting/name")), "a b");
    EXPECT_EQ(Take(vconf_get_str("db/setting/empty")), "");
    EXPECT_EQ(Take(vconf_get_str("plain")), "p");
    for (const char* key : {"name", "db/name", "db/setting/none", "db/setting/", "/", "", "x/bad"})
    {
        EXPECT_EQ(Take(vconf_get_str(key)), "(none)") << key;
    }
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(HostLayerTest, UnusableSettingsFileIsLogged)
{
    Settings("no group\n");
    EXPECT_EQ(Take(vconf_get_str("a/b")), "(none)");
    setenv("QOR_VCONF_FILE", (m_root.Path() / "none.ini").c_str(), 1);
    EXPECT_EQ(Take(vconf_get_str("a/b")), "(none)");
    EXPECT_EQ(LogCapture::Count(DLOG_ERROR, "vconf: cannot use "), 2U);
}

TEST_F(HostLayerTest, SystemInformation)
{
    const auto text = [](system_info_key_e key)
    {
        char* pText = nullptr;
        return system_info_get_value_string(key, &pText) == SYSTEM_INFO_OK ? Take(pText) : "(none)";
    };
    utsname names;
    ASSERT_EQ(uname(&names), 0);
    EXPECT_EQ(text(SYSTEM_INFO_KEY_KERNEL_RELEASE), names.release);
    EXPECT_EQ(text(SYSTEM_INFO_KEY_MODEL), names.machine);
    EXPECT_EQ(text(SYSTEM_INFO_KEY_SYSTEM_NAME), "(none)");

    m_root.Write("usr/lib/os-release", "PRETTY_NAME=\"No\"\nNAME=\"Some System\"\nVERSION_ID=12\n");
    m_root.Write("sys/class/dmi/id/product_name", "A Board \n");
    EXPECT_EQ(text(SYSTEM_INFO_KEY_SYSTEM_NAME), "Some System");
    EXPECT_EQ(text(SYSTEM_INFO_KEY_SYSTEM_VERSION), "12");
    EXPECT_EQ(text(SYSTEM_INFO_KEY_MODEL), "A Board");

    int number = -5;
    EXPECT_EQ(system_info_get_value_int(SYSTEM_INFO_KEY_PROCESSOR_COUNT, &number), 0);
    EXPECT_EQ(number, sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_EQ(system_info_get_value_int(SYSTEM_INFO_KEY_MEMORY_MIB, &number), 0);
    EXPECT_GT(number, 15);

    char* pText = nullptr;
    EXPECT_NE(system_info_get_value_int(SYSTEM_INFO_KEY_MODEL, &number), 0);
    EXPECT_NE(system_info_get_value_string(SYSTEM_INFO_KEY_MEMORY_MIB, &pText), 0);
    EXPECT_NE(system_info_get_value_string(SYSTEM_INFO_KEY_INVALID, &pText), 0);
    EXPECT_EQ(pText, nullptr);
}

TEST_F(HostLayerTest, UsbDisksAreTheOnesBelowARootHub)
{
    usb_device_init();
    usb_device_list_h list = nullptr;
    EXPECT_NE(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0); // no sysfs
    Disk("pci0000:00/ata1", "sda");
    EXPECT_EQ(Count(), 0);
    Disk("usbip/platform", "sdx"); // a name that only begins like a root hub's
    EXPECT_EQ(Count(), 0);
    Disk("pci0000:00/usb2/2-1/2-1:1.0", "sdc");
    Disk("pci0000:00/usb1/1-1/1-1:1.0", "sdb");
    EXPECT_EQ(Count(), 2); // partitions are not devices
    EXPECT_EQ(FirstMountPath(), "(none)");

    m_root.Write("proc/mounts", "/dev/sda1 / ext4 rw 0 0\n"
                                "/dev/sdc1 /media/c vfat rw 0 0\n"
                                "sdb1 /virtual tmpfs rw 0 0\n"
                                "/dev/sdb1 /media/USB\\040stick vfat rw 0 0\n"
                                "/dev/sdb1 /second vfat rw 0 0\n");
    EXPECT_EQ(FirstMountPath(), "/media/USB stick");
    EXPECT_NE(usb_device_get_device_list(3, &list), 0);
    usb_device_fini();
}

TEST_F(HostLayerTest, UsbListsLiveUntilTheLastUserEnds)
{
    Disk("pci0000:00/usb1/1-1", "sdb");
    m_root.Write("proc/mounts", "/dev/sdb /whole vfat rw 0 0\n");
    usb_device_list_h list = nullptr;
    usb_device_h device = nullptr;
    EXPECT_NE(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0); // nobody's user
    EXPECT_NE(usb_device_fini(), 0);
    usb_device_init();
    usb_device_init();
    EXPECT_EQ(usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list), 0);
    EXPECT_EQ(usb_device_fini(), 0);
    EXPECT_EQ(usb_device_list_get_first(list, &device), 0);
    EXPECT_STREQ(usb_device_get_mountpath(device), "/whole");
    EXPECT_EQ(usb_device_fini(), 0);
    EXPECT_NE(usb_device_fini(), 0);
    EXPECT_EQ(usb_device_list_get_count(nullptr), -1);
    EXPECT_NE(usb_device_list_get_first(nullptr, &device), 0);
    EXPECT_EQ(usb_device_get_mountpath(nullptr), nullptr);
}

// Against the machine as it is: whatever is attached, the answers are consistent.
TEST_F(HostLayerTest, RealMachineAnswers)
{
    unsetenv("QOR_HOST_ROOT");
    usb_device_init();
    usb_device_list_h list = nullptr;
    usb_device_h device = nullptr;
    if (usb_device_get_device_list(USB_DEVICE_MASS_STORAGE, &list) == 0)
    {
        const bool any = usb_device_list_get_count(list) > 0;
        EXPECT_EQ(usb_device_list_get_first(list, &device) == 0, any);
    }
    usb_device_fini();
    char* pText = nullptr;
    ASSERT_EQ(system_info_get_value_string(SYSTEM_INFO_KEY_MODEL, &pText), 0);
    EXPECT_NE(Take(pText), "");
}

} // namespace
