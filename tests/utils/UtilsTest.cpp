// The utilities. The program is the platform, and counts what it is asked.
#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include <system_info.h>
#include <usb_device.h>
#include <vconf.h>

#include <qor/QORBufferProperties.h>
#include <qor/QORCachingUtils.h>
#include <qor/QORDirsManager.h>
#include <qor/QORFileSystem.h>

#include "LogCapture.h"
#include "Tree.h"

namespace fs = boost::filesystem;
using qor::TSFileSystem;
using qortest::LogCapture;

// Few distinct values, so that equal ids are frequent; the flags are noise.
TEST(BufferProperties, OrderIsAStrictWeakOrderOfUnsignedThenSignedIds)
{
    std::mt19937 random(20240229);
    const unsigned int ids[] = {0, 0x7fffffff, 0x80000000, 0xffffffff};
    std::vector<qor::TSBufferProperties> records(60);
    for (auto& record : records)
    {
        record.Init();
        record.SetBufferId(ids[random() % 4]);
        record.SetSecondaryId(static_cast<short>(random() % 3 - 1));
        record.SetDestroyed(random() % 2 == 0);
    }
    for (std::size_t i = 0; i < 3600; ++i)
    {
        auto &a = records[i / 60], &b = records[i % 60];
        ASSERT_EQ(a(&a, &b), std::make_pair(a.GetBufferId(), a.GetSecondaryId()) <
                                 std::make_pair(b.GetBufferId(), b.GetSecondaryId()));
    }
}

TEST(BufferProperties, ConcurrentIdsAreDistinct)
{
    volatile unsigned int counter = 0xffffffff - 100; // wraps on the way
    std::vector<unsigned int> ids(20000);
    const auto take = [&](std::size_t first)
    {
        for (qor::TSBufferProperties record; first < ids.size(); first += 2)
        {
            record.SetBufferId(&counter);
            ids[first] = record.GetBufferId();
        }
    };
    std::thread other(take, 0);
    take(1);
    other.join();
    ids.push_back(0xffffffff - 100); // an id is the value after the increment
    EXPECT_EQ(std::set<unsigned int>(ids.begin(), ids.end()).size(), 20001U);
}

static std::atomic<int> queries;
static int result;
static const char* text;

static struct Usb
{
    const char* debugImage; // the file that stands for /etc/debug
    int listResult, count, firstResult;
    const char* mountPoint;
} usb = {};
static std::string calls;

#define PLATFORM(type, name, parameters, ...)                                                      \
    type name parameters                                                                           \
    {                                                                                              \
        return __VA_ARGS__;                                                                        \
    }

// Late enough for others to ask meanwhile.
PLATFORM(char*, vconf_get_str, (const char*), ++queries, usleep(20000),
         text ? strdup(text) : nullptr)
PLATFORM(int, system_info_get_value_int, (system_info_key_e, int* p), ++queries, *p = 42, result)
PLATFORM(int, system_info_get_value_string, (system_info_key_e, char** p), *p = vconf_get_str(""),
         result)
PLATFORM(int, usb_device_init, (), calls += "init ", 0)
PLATFORM(int, usb_device_fini, (), calls += "fini", 0)
PLATFORM(int, usb_device_get_device_list, (int type, usb_device_list_h*),
         calls += type == 8 ? "list " : "?", usb.listResult)
PLATFORM(int, usb_device_list_get_count, (usb_device_list_h), usb.count)
PLATFORM(int, usb_device_list_get_first, (usb_device_list_h, usb_device_h*), calls += "first ",
         usb.firstResult)
PLATFORM(const char*, usb_device_get_mountpath, (usb_device_h), calls += "path ", usb.mountPoint)

// Calls of the C library. One that is refused succeeds some times before, and is done nevertheless.
static std::string refused;
static int successes;

#define REFUSABLE(type, failure, error, name, parameters, ...)                                     \
    extern "C" __attribute__((visibility("default"))) type name parameters                         \
    {                                                                                              \
        static const auto real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name));       \
        const auto done = real(__VA_ARGS__);                                                       \
        const bool refuse = refused == #name && successes-- <= 0;                                  \
        errno = refuse ? error : errno;                                                            \
        return refuse ? failure : done;                                                            \
    }

REFUSABLE(dirent*, nullptr, EIO, readdir, (DIR * p), p)
REFUSABLE(int, -1, EPERM, chmod, (const char* path, mode_t mode) noexcept, path, mode)
REFUSABLE(int, -1, EPERM, chown, (const char* path, uid_t u, gid_t g) noexcept, path, u, g)
REFUSABLE(int, -1, EEXIST, mkdir, (const char* path, mode_t mode) noexcept, path, mode)
REFUSABLE(int, -1, EIO, stat, (const char* path, struct stat* p) noexcept,
          strcmp(path, "/etc/debug") != 0 ? path : usb.debugImage, p)

// The caches last for the life of the process: no key is used twice.
static std::string Lookup(int key)
{
    using Caches = qor::TCVelkinCachingUtils;
    std::string setting, value;
    int number = 0;
    const auto infoKey = static_cast<system_info_key_e>(key);
    const int found = Caches::GetVconfCachedString(std::to_string(key), setting) +
                      Caches::GetSystemInfoKeyCached(infoKey, value) +
                      Caches::GetSystemInfoKeyCached(infoKey, number);
    return std::to_string(found) + setting + value + std::to_string(number);
}

TEST(CachingUtils, KeysAreAskedForUntilTheyHaveAnswersAndByOneThreadOnly)
{
    LogCapture::Clear();
    result = -1;
    EXPECT_EQ(Lookup(100), "042");
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Fail getting systeminfo value"), 2U);
    EXPECT_EQ(LogCapture::Lines().size(), 2U); // none of the setting
    result = queries = 0;
    text = ""; // which is an answer
    EXPECT_EQ(Lookup(100), "342");
    text = "text";
    const auto look = []
    {
        EXPECT_EQ(Lookup(100), "342");
        EXPECT_EQ(Lookup(101), "3texttext42");
    };
    std::thread threads[] = {std::thread(look), std::thread(look), std::thread(look)};
    std::for_each(threads, threads + 3, [](std::thread& thread) { thread.join(); });
    EXPECT_EQ(queries, 6);
}

TEST(DirsManager, PolicyOnTheFirstStickIsUsedOnDebugImages)
{
    const std::string standard = "/opt/usr/share/vantorix/velkin_qor_policy.xml";
    EXPECT_EQ(qor::TCDirsManager::GetPolicyXmlPath(), standard);
    const qortest::Tree tree;
    const std::string policy = tree.Write("velkin/velkin_qor_policy.xml"), stick = tree.At();
    const std::string mounted = "init list first path fini", unlisted = "init list fini";
    const struct
    {
        Usb usb;
        int mode; // from 1, which the library never writes
        std::string path, calls;
    } cases[] = {
        {{"", 0, 1, 0, stick.c_str()}, 1, standard, ""},
        {{"/", 0, 1, 0, stick.c_str()}, 2, policy, mounted},
        {{"/", -1, 1, 0, stick.c_str()}, 1, standard, unlisted}, // the stick is gone
        {{"/", 0, 0, 0, stick.c_str()}, 1, standard, unlisted},
        {{"/", 0, -1, 0, stick.c_str()}, 1, standard, unlisted},
        {{"/", 0, 1, 7, stick.c_str()}, 1, standard, "init list first fini"},
        {{"/", 0, 1, 0, "/nowhere"}, 0, standard, mounted},
        {{"/", 0, 1, 0, nullptr}, 0, standard, mounted}, // not mounted
    };
    for (const auto& expected : cases)
    {
        usb = expected.usb;
        calls.clear();
        LogCapture::Clear();
        qor::TCDirsManager::QORMode = 1;
        qor::TCDirsManager::Initialize();
        SCOPED_TRACE(&expected - cases);
        EXPECT_EQ(qor::TCDirsManager::GetPolicyXmlPath(), expected.path);
        EXPECT_EQ(qor::TCDirsManager::QORMode, expected.mode);
        EXPECT_EQ(calls, expected.calls);
        EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Default dirs") == 1, expected.mode == 1);
    }
}

using Names = std::multiset<fs::path>;

struct FileSystem : testing::Test, qortest::Tree
{
    Names Files(const std::string& extension) const
    {
        std::vector<fs::path> files;
        const bool ok = TSFileSystem::GetFiles(files, At(), extension);
        files.resize(files.size() + (ok ? 0 : 1), "failed");
        return Names(files.begin(), files.end());
    }
};

TEST_F(FileSystem, ListingsSelectByExactExtensionAndByText)
{
    for (const char* name : {"a/x.xml", "top.XML", "two.dots.xml", ".xml", "xml", "d.xml/plain"})
    {
        Write(name);
    }
    EXPECT_EQ(Files(".xml"), (Names{".xml", "two.dots.xml", "x.xml"}));
    EXPECT_EQ(Files("xml"), Names());
    EXPECT_EQ(Files(""), (Names{"plain", "xml"}));
    EXPECT_EQ(TSFileSystem::GetFileList(At(), ".xml", "").size(), 2U);
    EXPECT_EQ(TSFileSystem::GetFileList(At(), "", At()).size(), 4U); // with the directory's path
    EXPECT_EQ(TSFileSystem::GetFileList(At(), "", "/two").front(), At("two.dots.xml"));
    EXPECT_EQ(TSFileSystem::GetDirList(At()), (std::set<fs::path>{At("a"), At("d.xml")}));
}

TEST_F(FileSystem, NamesAreBytesAndNoDirectoryIsVisitedTwice)
{
    Write("sub \xfd/new\nline.x", "123");
    Write("sub \xfd/sp \xff\xfe.x", "12345");
    fs::create_symlink("..", At("sub \xfd/up"));
    fs::create_symlink("sub \xfd/new\nline.x", At("alias.x"));
    EXPECT_EQ(Files(".x"), (Names{"alias.x", "new\nline.x", "sp \xff\xfe.x"}));
    EXPECT_EQ(TSFileSystem::GetDirSize(At()), 11U);
    fs::resize_file(Write("a/sparse"), 0xfffffff8);
    EXPECT_EQ(TSFileSystem::GetDirSize(At()), 3U); // modulo 4 GiB
    EXPECT_EQ(TSFileSystem::GetDirSize(At("none")), 0U);
    ASSERT_EQ(mkfifo(At("fifo").c_str(), 0600), 0); // which has no size
    EXPECT_THROW(TSFileSystem::GetDirSize(At()), fs::filesystem_error);
}

// A link that leads nowhere fails its query without an exception, and what comes later clears that;
// one that leads to itself has no status at all.
TEST_F(FileSystem, OnlyTheLatestErrorOfAWalkCounts)
{
    fs::create_symlink("nowhere", At("dangling"));
    EXPECT_EQ(Files(""), Names{"failed"});
    Write("closed/file.x"); // opened later
    EXPECT_EQ(Files(""), Names());
    EXPECT_THROW(TSFileSystem::GetDirSize(At()), fs::filesystem_error);
    refused = "readdir"; // after "." and "..", and an entry
    successes = 3;
    EXPECT_EQ(TSFileSystem::GetDirSize(At("closed")), 20971520U);
    refused.clear();
    if (geteuid() != 0) // permissions do not bind root
    {
        fs::permissions(At("closed"), fs::owner_read); // entries with types, but without a status
        EXPECT_THROW(Files(".x"), fs::filesystem_error);
        fs::permissions(At("closed"), fs::no_perms);
        EXPECT_EQ(Files(".x"), Names{"failed"});
        fs::permissions(At("closed"), fs::owner_all);
    }
    fs::create_symlink("loop", At("loop"));
    EXPECT_THROW(Files(""), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirList(At()), fs::filesystem_error);
}

TEST_F(FileSystem, ExistenceTimeSpaceAndContents)
{
    const std::string bytes("\0\1 \xff\n\r890", 9), file = Write("file", bytes);
    EXPECT_TRUE(TSFileSystem::FileExists(file) && TSFileSystem::FolderExists(At()));
    EXPECT_FALSE(TSFileSystem::FileExists(At("none")) || TSFileSystem::FolderExists(file));
    fs::last_write_time(file, 1234567890);
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(file), 1234567890);
    const int free = static_cast<int>(fs::space(At()).available >> 20); // others write meanwhile
    EXPECT_NEAR(TSFileSystem::GetFreeSpaceSize(At()), free, 256);
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(At("none")), -1);
    std::vector<unsigned char> data(1000, 7);
    EXPECT_TRUE(TSFileSystem::GetFileContents(file, data));
    fs::resize_file(Write("huge"), 0x100000005); // 5 in 32 bits
    for (const std::string& failing : {Write("empty", ""), At("none"), At("huge"), At()})
    {
        EXPECT_FALSE(TSFileSystem::GetFileContents(failing, data)) << failing;
    }
    EXPECT_EQ(std::string(data.begin(), data.end()), bytes);
}

TEST_F(FileSystem, MovesToUsbMediaAreCopiesWhichReplaceOnlyWhenAsked)
{
    const std::string source = Write("source", "new"), other = Write("other", "old");
    const std::string stick = Write("media/USB0/file", "older");
    EXPECT_FALSE(TSFileSystem::CopyFile(source, stick, false));
    EXPECT_FALSE(TSFileSystem::MoveFile(source, stick, false));
    EXPECT_EQ(qortest::ReadFile(stick), "older");
    EXPECT_TRUE(TSFileSystem::MoveFile(source, stick, true));
    EXPECT_TRUE(TSFileSystem::CopyFile(source, other, true));
    EXPECT_TRUE(TSFileSystem::MoveFile(source, Write("target", "old"), false));
    EXPECT_FALSE(TSFileSystem::MoveFile(source, At("target"), true)); // it is gone
    EXPECT_EQ(qortest::ReadFile(stick) + qortest::ReadFile(other) + qortest::ReadFile(At("target")),
              "newnewnew");
    fs::create_symlink(other, At("tree"));
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("none")) && TSFileSystem::RemoveFolder(At("none")));
    EXPECT_FALSE(TSFileSystem::RemoveFile(At("media")));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(At("tree")) && fs::exists(other));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(At("media")) && !fs::exists(At("media")));
}

TEST_F(FileSystem, MakeDirOpensOnlyTheDirectoryItMade)
{
    umask(022);
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/y/z"), true));
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/y"), true)); // is there
    EXPECT_FALSE(TSFileSystem::MakeDir(Write("file") + "/below/it", false));
    refused = "mkdir"; // somebody was faster
    EXPECT_TRUE(TSFileSystem::MakeDir(At("theirs"), true));
    EXPECT_EQ(fs::status(At("x/y")).permissions(), 0755U);
    EXPECT_EQ(fs::status(At("x/y/z")).permissions() & fs::status(At("theirs")).permissions(),
              0777U);
    refused = "chmod";
    EXPECT_TRUE(TSFileSystem::MakeDir(At("opt/media/USB0/new"), true));
    EXPECT_FALSE(TSFileSystem::MakeDir(At("media/USB0"), true));
    refused = "chown"; // which is asked for with both ids only
    EXPECT_TRUE(TSFileSystem::SetPermissions(At("file"), fs::owner_read, 1, -1));
    EXPECT_TRUE(TSFileSystem::SetPermissions(At("file"), fs::add_perms | fs::group_read, -1, 1));
    EXPECT_FALSE(TSFileSystem::SetPermissions(At("file"), fs::add_perms | fs::group_read, 1, 1));
    EXPECT_EQ(fs::status(At("file")).permissions(), 0440U);
}

TEST_F(FileSystem, UniqueNamesCountBeforeTheLastDot)
{
    Write("a.tar.gz");
    Write("plain");
    for (int i = 1; i < 1000; ++i)
    {
        Write("plain_" + std::to_string(i), "");
    }
    fs::path unique;
    std::string names;
    for (const char* name : {"plain", "a.tar.gz", "new.xml"})
    {
        EXPECT_TRUE(TSFileSystem::GenerateUniqueName(At(), name, unique));
        names += unique.string().substr(At().size());
    }
    EXPECT_EQ(names, "/plain_1000/a.tar_1.gz/new.xml");
    EXPECT_FALSE(TSFileSystem::GenerateUniqueName(At("plain"), "x", unique)); // no directory
}
