// The host layer against a machine that the test makes up.
#include <dlfcn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include <gtest/gtest.h>

#include <dlog.h>
#include <system_info.h>
#include <usb_device.h>
#include <vconf.h>

#include "Logged.h"
#include "TemporaryDirectory.h"

using qortest::TLines;

namespace
{

// What the log daemon has got, and the error that it answers the next line with.
TLines daemonLines;
int daemonError;

} // namespace

extern "C" __attribute__((visibility("default"))) ssize_t
sendto(int, const void* pData, size_t length, int flags, const sockaddr* pAddress, socklen_t)
{
    EXPECT_STREQ(reinterpret_cast<const sockaddr_un*>(pAddress)->sun_path, "/dev/log");
    EXPECT_EQ(flags, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (daemonError != 0)
    {
        errno = daemonError;
        daemonError = 0;
        return -1;
    }
    daemonLines.emplace_back(static_cast<const char*>(pData), length);
    return static_cast<ssize_t>(length);
}

namespace
{

// A string that the platform hands over; "(none)" for null.
std::string Take(char* pText)
{
    const std::string text = pText != nullptr ? pText : "(none)";
    free(pText);
    return text;
}

std::string Information(system_info_key_e key)
{
    char* pText = nullptr;
    return system_info_get_value_string(key, &pText) == 0 ? Take(pText) : "(failed)";
}

class HostLayerTest : public testing::Test, protected qortest::TemporaryDirectory
{
protected:
    HostLayerTest()
    {
        setenv("QOR_HOST_ROOT", At("").c_str(), 1);
        setenv("QOR_VCONF_FILE", At("settings.ini").c_str(), 1);
    }

    // A disk with one partition, as sysfs shows it.
    void AddDisk(const std::string& bus, const std::string& name) const
    {
        const std::string device = "devices/" + bus + "/host0/block/" + name;
        Write("sys/" + device + "/" + name + "1/partition");
        MakeDirectory("sys/class/block");
        Link("sys/class/block/" + name, "../../" + device);
        Link("sys/class/block/" + name + "1", "../../" + device + "/" + name + "1");
    }
};

TEST_F(HostLayerTest, LogLinesGoToTheLogDaemon)
{
    // The program's own definition stands before the platform's.
    void* pLibrary = dlopen(QOR_PLATFORM_SONAME, RTLD_NOW | RTLD_NOLOAD);
    const auto print = reinterpret_cast<decltype(&__dlog_print)>(dlsym(pLibrary, "__dlog_print"));
    const std::string process = "[" + std::to_string(getpid()) + "]: ";
    errno = ERANGE;
    EXPECT_GT(print(LOG_ID_SYSTEM, DLOG_ERROR, "QOR", "number %d", 3), 0);
    EXPECT_GT(print(LOG_ID_MAIN, DLOG_INFO, "X", "%s", "text"), 0);
    // A daemon that is away costs the line, a descriptor that the host has closed does not.
    daemonError = ECONNREFUSED;
    EXPECT_EQ(print(LOG_ID_SYSTEM, DLOG_DEBUG, "QOR", "lost"), 0);
    daemonError = EBADF;
    EXPECT_GT(print(LOG_ID_SYSTEM, DLOG_DEBUG, "QOR", "kept"), 0);
    EXPECT_EQ(daemonLines, (TLines{"<27>QOR" + process + "number 3", "<14>X" + process + "text",
                                   "<31>QOR" + process + "kept"}));
    EXPECT_LE(print(LOG_ID_MAIN, DLOG_INFO, "X", "%s", std::string(100000, 'x').c_str()), 4096);
    EXPECT_EQ(errno, ERANGE);
}

TEST_F(HostLayerTest, SettingsAreFoundByPath)
{
    Write("settings.ini", "[db/setting]\nname=a b\nempty=\n[vconf]\nplain=p\n[x]\nbad=\\q\n");
    EXPECT_EQ(Take(vconf_get_str("db/setting/name")), "a b");
    EXPECT_EQ(Take(vconf_get_str("/db/setting/name")), "a b");
    EXPECT_EQ(Take(vconf_get_str("db/setting/empty")), "");
    EXPECT_EQ(Take(vconf_get_str("plain")), "p");
    for (const char* key : {"name", "db/name", "db/setting/none", "db/setting/", "/", "", "x/bad"})
    {
        EXPECT_EQ(Take(vconf_get_str(key)), "(none)") << key;
    }
    EXPECT_EQ(qortest::Logged(""), TLines());
    Write("settings.ini", "no group\n");
    EXPECT_EQ(Take(vconf_get_str("plain")), "(none)");
    boost::filesystem::remove(At("settings.ini"));
    EXPECT_EQ(Take(vconf_get_str("plain")), "(none)");
    EXPECT_EQ(qortest::Logged("").size(), 2U);
}

TEST_F(HostLayerTest, SystemInformationHasTypes)
{
    EXPECT_NE(Information(SYSTEM_INFO_KEY_MODEL), "(failed)");
    EXPECT_EQ(Information(SYSTEM_INFO_KEY_SYSTEM_NAME), "(failed)");
    Write("usr/lib/os-release", "PRETTY_NAME=\"No\"\nNAME=\"Some System\"\nVERSION_ID=12\n");
    Write("sys/class/dmi/id/product_name", "A Board \n");
    EXPECT_EQ(Information(SYSTEM_INFO_KEY_SYSTEM_NAME), "Some System");
    EXPECT_EQ(Information(SYSTEM_INFO_KEY_SYSTEM_VERSION), "12");
    EXPECT_EQ(Information(SYSTEM_INFO_KEY_MODEL), "A Board");
    EXPECT_EQ(Information(SYSTEM_INFO_KEY_MEMORY_MIB), "(failed)");

    int number = -5;
    EXPECT_NE(system_info_get_value_int(SYSTEM_INFO_KEY_MODEL, &number), 0);
    EXPECT_NE(system_info_get_value_int(SYSTEM_INFO_KEY_INVALID, &number), 0);
    EXPECT_EQ(number, -5);
    EXPECT_EQ(system_info_get_value_int(SYSTEM_INFO_KEY_PROCESSOR_COUNT, &number), 0);
    EXPECT_EQ(number, sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_EQ(system_info_get_value_int(SYSTEM_INFO_KEY_MEMORY_MIB, &number), 0);
    EXPECT_GT(number, 15);
}

TEST_F(HostLayerTest, UsbDisksAreTheOnesBelowARootHub)
{
    usb_device_list_h list = nullptr;
    usb_device_h device = nullptr;
    const auto count = [&]
    { return usb_device_get_device_list(8, &list) == 0 ? usb_device_list_get_count(list) : -1; };
    const auto mountPath = [&]
    {
        EXPECT_EQ(usb_device_list_get_first(list, &device), 0);
        const char* path = usb_device_get_mountpath(device);
        return std::string(path != nullptr ? path : "(none)");
    };
    EXPECT_EQ(count(), -1); // not open
    EXPECT_NE(usb_device_fini(), 0);
    usb_device_init();
    EXPECT_EQ(count(), -1); // no sysfs
    AddDisk("pci0000:00/ata1", "sda");
    AddDisk("usb/platform", "sdx"); // names that only look like a root hub's
    AddDisk("usb2net/platform", "sdy");
    EXPECT_EQ(count(), 0);
    EXPECT_NE(usb_device_list_get_first(list, &device), 0);
    AddDisk("pci0000:00/usb2/2-1/2-1:1.0", "sdc");
    AddDisk("pci0000:00/usb1/1-1/1-1:1.0", "sdb");
    EXPECT_EQ(count(), 2); // partitions are not devices
    EXPECT_EQ(mountPath(), "(none)");
    Write("proc/mounts", "/dev/sda1 / ext4 rw 0 0\n/dev/sdc1 /media/c vfat rw 0 0\n"
                         "sdb1 /virtual tmpfs rw 0 0\n/dev/sdb1 /media/USB\\040stick vfat rw 0 0\n"
                         "/dev/sdb /second vfat rw 0 0\n");
    EXPECT_EQ(count(), 2);
    usb_device_init();
    usb_device_fini(); // not the last user
    EXPECT_EQ(mountPath(), "/media/USB stick");
    EXPECT_NE(usb_device_get_device_list(3, &list), 0);
    EXPECT_EQ(usb_device_fini(), 0);
    EXPECT_NE(usb_device_fini(), 0);
}

} // namespace
