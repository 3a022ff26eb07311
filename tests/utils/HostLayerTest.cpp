// The host layer against a machine that the test makes up.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <dlog.h>
#include <system_info.h>
#include <usb_device.h>
#include <vconf.h>

#include "ChildProcess.h"
#include "LogCapture.h"

namespace fs = boost::filesystem;

static std::string logged; // what the log daemon has got
static int daemonError;    // and the error that it answers with
static int usedSocket = -1;

extern "C" __attribute__((visibility("default"))) ssize_t
sendto(int file, const void* pData, size_t size, int, const sockaddr*, socklen_t)
{
    usedSocket = file;
    if (fcntl(file, F_GETFD) < 0)
    {
        return -1; // with EBADF
    }
    errno = daemonError;
    logged.append(static_cast<const char*>(pData), daemonError == 0 ? size : 0) += "\n";
    return daemonError == 0 ? static_cast<ssize_t>(size) : -1;
}

static std::string Take(char* pText)
{
    const std::string text = pText != nullptr ? pText : "(none)";
    free(pText);
    return text;
}

struct HostLayer : testing::Test, qortest::TemporaryDirectory
{
    void AddDisk(const std::string& bus, const std::string& name) const
    {
        const std::string device = "devices/" + bus + "/host0/block/" + name;
        fs::create_directories(Path("sys/class/block"));
        for (const std::string& partition : {name + "1", name + "2"})
        {
            Write("sys/" + device + "/" + partition + "/partition");
            fs::create_symlink("../../" + device + "/" + partition,
                               Path("sys/class/block/" + partition));
        }
        fs::create_symlink("../../" + device, Path("sys/class/block/" + name));
    }
};

TEST_F(HostLayer, LogLinesGoToTheLogDaemonOrNowhere)
{
    // The program's own definition stands before the platform's.
    void* pLibrary = dlopen(QOR_PLATFORM_SONAME, RTLD_NOW | RTLD_NOLOAD);
    const auto print = reinterpret_cast<decltype(&__dlog_print)>(dlsym(pLibrary, "__dlog_print"));
    EXPECT_GT(print(LOG_ID_SYSTEM, DLOG_ERROR, "QOR", "number %d", 3), 0);
    EXPECT_EQ(logged, "<27>QOR[" + std::to_string(getpid()) + "]: number 3\n");
    close(usedSocket); // as a host does that becomes a daemon
    EXPECT_GT(print(LOG_ID_SYSTEM, DLOG_ERROR, "QOR", "number %d", 4), 0);
    EXPECT_NE(logged.find(": number 4\n"), std::string::npos);
    daemonError = ECONNREFUSED;
    EXPECT_EQ(print(LOG_ID_SYSTEM, DLOG_DEBUG, "QOR", "lost"), 0);
}

TEST_F(HostLayer, SettingsAreFoundByPath)
{
    setenv("QOR_VCONF_FILE", Path("settings.ini").c_str(), 1);
    Write("settings.ini", "[db/setting]\nname=a b\nempty=\n[vconf]\nplain=p\n[x]\nbad=\\q\n");
    EXPECT_EQ(Take(vconf_get_str("db/setting/name")), "a b");
    EXPECT_EQ(Take(vconf_get_str("/db/setting/empty")), "");
    EXPECT_EQ(Take(vconf_get_str("plain")), "p");
    for (const char* key : {"name", "db/name", "db/setting/", "/", "", "x/bad"})
    {
        EXPECT_EQ(Take(vconf_get_str(key)), "(none)") << key;
    }
    qortest::LogCapture::Clear();
    Write("settings.ini", "no group\n");
    EXPECT_EQ(Take(vconf_get_str("plain")), "(none)");
    ASSERT_EQ(qortest::LogCapture::Count(qortest::LOG_ERROR, "settings.ini"), 1U);
    EXPECT_EQ(qortest::LogCapture::Lines().front().tag, "VCONF");
    fs::remove(Path("settings.ini")); // no settings at all are not an error
    EXPECT_EQ(Take(vconf_get_str("plain")), "(none)");
    EXPECT_EQ(qortest::LogCapture::Lines().size(), 1U);
}

TEST_F(HostLayer, SystemInformationHasTypes)
{
    setenv("QOR_HOST_ROOT", Path().c_str(), 1);
    char* pText = nullptr;
    EXPECT_NE(system_info_get_value_string(SYSTEM_INFO_KEY_SYSTEM_NAME, &pText), 0);
    Write("usr/lib/os-release",
          "PRETTY_NAME=\"No\"\nNAME_ID=no\nNAME=\"Some System\"\nVERSION_ID=12\n");
    EXPECT_EQ(system_info_get_value_string(SYSTEM_INFO_KEY_SYSTEM_NAME, &pText), 0);
    EXPECT_EQ(Take(pText), "Some System");
    int number = -5;
    EXPECT_NE(system_info_get_value_int(SYSTEM_INFO_KEY_MODEL, &number), 0);
    EXPECT_EQ(system_info_get_value_int(SYSTEM_INFO_KEY_PROCESSOR_COUNT, &number), 0);
    EXPECT_EQ(number, sysconf(_SC_NPROCESSORS_ONLN));
    EXPECT_EQ(system_info_get_value_int(SYSTEM_INFO_KEY_MEMORY_MIB, &number), 0);
    EXPECT_EQ(number, sysconf(_SC_PHYS_PAGES) / ((1 << 20) / sysconf(_SC_PAGESIZE)));
}

TEST_F(HostLayer, UsbDisksAreTheOnesBelowARootHub)
{
    setenv("QOR_HOST_ROOT", Path().c_str(), 1);
    usb_device_list_h list = nullptr;
    usb_device_h device = nullptr;
    EXPECT_NE(usb_device_get_device_list(8, &list), 0); // not open
    usb_device_init();
    AddDisk("pci0000:00/ata1", "sda"); // with a partition
    AddDisk("usb/platform", "sdx");    // looks like a root hub only
    AddDisk("pci0000:00/usb2/2-1/2-1:1.0", "sdc");
    AddDisk("pci0000:00/usb1/1-1/1-1:1.0", "sdb");
    Write("proc/self/mounts",
          "/dev/sdc1 /media/c vfat rw 0 0\nsdb1 /virtual tmpfs rw 0 0\n"
          "/dev/sdb1 /media/USB\\040stick vfat rw 0 0\n/dev/sdb2 /mnt vfat rw 0 0\n");
    ASSERT_EQ(usb_device_get_device_list(8, &list), 0);
    EXPECT_EQ(usb_device_list_get_count(list), 2); // partitions are not devices
    EXPECT_EQ(usb_device_list_get_first(list, &device), 0);
    EXPECT_STREQ(usb_device_get_mountpath(device), "/media/USB stick");
    EXPECT_NE(usb_device_get_device_list(3, &list), 0);
    EXPECT_EQ(usb_device_fini(), 0);
}
