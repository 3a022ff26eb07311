// The utilities. The program is the platform, and counts what it is asked.
#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <map>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include <system_info.h>
#include <usb_device.h>
#include <vconf.h>

#include <qor/QORBufferProperties.h>
#include <qor/QORCachingUtils.h>
#include <qor/QORDirsManager.h>
#include <qor/QORFileSystem.h>

#include "ChildProcess.h"
#include "LogCapture.h"

namespace fs = boost::filesystem;
using qor::TSFileSystem;

TEST(BufferProperties, OrderIsByUnsignedIdThenBySignedSecondaryId)
{
    const std::pair<unsigned int, short> ascending[] = {
        {0, -1}, {0, 0}, {0, 1}, {0x7fffffff, 0}, {0x80000000, -1}, {0xffffffff, 0}};
    qor::TSBufferProperties a, b;
    for (const auto& low : ascending)
    {
        for (const auto& high : ascending)
        {
            a.SetBufferId(low.first);
            a.SetSecondaryId(low.second);
            b.SetBufferId(high.first);
            b.SetSecondaryId(high.second);
            EXPECT_EQ(a(&a, &b), &low < &high);
        }
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
} usb = {"", 0, 0, 0, nullptr};
static std::string calls;

// Late enough for others to ask meanwhile.
char* vconf_get_str(const char*)
{
    ++queries;
    usleep(20000);
    return text ? strdup(text) : nullptr;
}

int system_info_get_value_int(system_info_key_e, int* p)
{
    ++queries;
    *p = 42;
    return result;
}

int system_info_get_value_string(system_info_key_e, char** p)
{
    *p = vconf_get_str("");
    return result;
}

static int Tell(const char* call, int answer)
{
    calls += call;
    return answer;
}

int usb_device_init()
{
    return Tell("init ", 0);
}

int usb_device_fini()
{
    return Tell("fini", 0);
}

int usb_device_get_device_list(int type, usb_device_list_h*)
{
    return Tell(type == 8 ? "list " : "?", usb.listResult);
}

int usb_device_list_get_count(usb_device_list_h)
{
    return usb.count;
}

int usb_device_list_get_first(usb_device_list_h, usb_device_h*)
{
    return Tell("first ", usb.firstResult);
}

const char* usb_device_get_mountpath(usb_device_h)
{
    calls += "path ";
    return usb.mountPoint;
}

// Calls of the C library. One that is refused succeeds some times before, and is done nevertheless.
static std::string refused;
static int successes;

// With large files on 32-bit processors, two of them are others to the linker.
static void* RealFunction(const std::string& name)
{
    const bool is32Bit = sizeof(void*) == 4;
    const std::map<std::string, const char*> others = {{"readdir", "readdir64"},
                                                       {"stat", "__stat64_time64"}};
    const auto other = others.find(name);
    return dlsym(RTLD_NEXT, is32Bit && other != others.end() ? other->second : name.c_str());
}

#define REFUSABLE(type, failure, error, name, parameters, ...)                                     \
    extern "C" __attribute__((visibility("default"))) type name parameters                         \
    {                                                                                              \
        static const auto real = reinterpret_cast<decltype(&name)>(RealFunction(#name));           \
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
    qortest::LogCapture::Clear();
    testing::internal::CaptureStdout();
    result = -1;
    EXPECT_EQ(Lookup(100), "042");
    qor::TCDirsManager::Initialize();
    TSFileSystem::FolderExists("/nowhere");
    fflush(stdout);
    const std::string out = testing::internal::GetCapturedStdout();
    for (const char* line :
         {"CVelkinCachingUtils:Get", "CDirsManager:Initialize:", "SFileSystem:FolderExists:"})
    {
        EXPECT_NE(out.find(std::string("QOR >qor::T") + line), std::string::npos) << line << out;
    }
    EXPECT_EQ(qortest::LogCapture::Count(qortest::LOG_ERROR, "QORCaching"), 2U); // no setting
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
    const qortest::TemporaryDirectory tree;
    const std::string policy = tree.Write("velkin/velkin_qor_policy.xml"), stick = tree.Path();
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
        {{"/", 0, 1, 7, stick.c_str()}, 1, standard, "init list first fini"},
        {{"/", 0, 1, 0, "/nowhere"}, 0, standard, mounted},
        {{"/", 0, 1, 0, nullptr}, 0, standard, mounted}, // not mounted
    };
    for (const auto& expected : cases)
    {
        usb = expected.usb;
        calls.clear();
        qor::TCDirsManager::QORMode = 1;
        qor::TCDirsManager::Initialize();
        SCOPED_TRACE(&expected - cases);
        EXPECT_EQ(qor::TCDirsManager::GetPolicyXmlPath(), expected.path);
        EXPECT_EQ(qor::TCDirsManager::QORMode, expected.mode);
        EXPECT_EQ(calls, expected.calls);
    }
}

using Names = std::multiset<fs::path>;

struct FileSystem : testing::Test, qortest::TemporaryDirectory
{
    Names Files(const std::string& extension) const
    {
        std::vector<fs::path> files;
        const bool ok = TSFileSystem::GetFiles(files, Path(), extension);
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
    EXPECT_EQ(TSFileSystem::GetFileList(Path(), ".xml", "").size(), 2U);
    EXPECT_EQ(TSFileSystem::GetFileList(Path(), "", Path()).size(),
              4U); // with the directory's path
    EXPECT_EQ(TSFileSystem::GetFileList(Path(), "", "/two").front(), Path("two.dots.xml"));
    EXPECT_EQ(TSFileSystem::GetDirList(Path()), (std::set<fs::path>{Path("a"), Path("d.xml")}));
}

TEST_F(FileSystem, NamesAreBytesAndNoDirectoryIsVisitedTwice)
{
    Write("sub \xfd/new\nline.x", "123");
    Write("sub \xfd/sp \xff\xfe.x", "12345");
    fs::create_symlink("..", Path("sub \xfd/up"));
    fs::create_symlink("sub \xfd/new\nline.x", Path("alias.x"));
    EXPECT_EQ(Files(".x"), (Names{"alias.x", "new\nline.x", "sp \xff\xfe.x"}));
    EXPECT_EQ(TSFileSystem::GetDirSize(Path()), 11U);
    fs::resize_file(Write("a/sparse"), 0xfffffff8);
    EXPECT_EQ(TSFileSystem::GetDirSize(Path()), 3U); // modulo 4 GiB
    EXPECT_EQ(TSFileSystem::GetDirSize(Path("none")), 0U);
    ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0); // which has no size
    EXPECT_THROW(TSFileSystem::GetDirSize(Path()), fs::filesystem_error);
}

// A link that leads nowhere fails its query without an exception, and what comes later clears that;
// one that leads to itself has no status at all.
TEST_F(FileSystem, OnlyTheLatestErrorOfAWalkCounts)
{
    fs::create_symlink("nowhere", Path("dangling"));
    EXPECT_EQ(Files(""), Names{"failed"});
    Write("closed/file.x"); // opened later
    EXPECT_EQ(Files(""), Names());
    EXPECT_THROW(TSFileSystem::GetDirSize(Path()), fs::filesystem_error);
    refused = "readdir"; // after "." and "..", and an entry
    successes = 3;
    EXPECT_EQ(TSFileSystem::GetDirSize(Path("closed")), 20971520U);
    refused.clear();
    const uid_t user = geteuid();
    for (const std::string& path : {Path(), Path("closed")}) // permissions do not bind root
    {
        ASSERT_EQ(user == 0 ? chown(path.c_str(), 12345, gid_t(-1)) : 0, 0);
    }
    ASSERT_EQ(user == 0 ? seteuid(12345) : 0, 0);
    fs::permissions(Path("closed"), fs::owner_read); // entries with types, but without a status
    EXPECT_THROW(Files(".x"), fs::filesystem_error);
    fs::permissions(Path("closed"), fs::no_perms);
    EXPECT_EQ(Files(".x"), Names{"failed"});
    fs::permissions(Path("closed"), fs::owner_all);
    ASSERT_EQ(seteuid(user), 0);
    fs::create_symlink("loop", Path("loop"));
    EXPECT_THROW(Files(""), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirList(Path()), fs::filesystem_error);
}

TEST_F(FileSystem, ExistenceSpaceAndContents)
{
    const std::string bytes("\0\1 \xff\n\r890", 9), file = Write("file", bytes);
    EXPECT_TRUE(TSFileSystem::FileExists(file) && TSFileSystem::FolderExists(Path()));
    EXPECT_FALSE(TSFileSystem::FileExists(Path("none")) || TSFileSystem::FolderExists(file));
    const int free = static_cast<int>(fs::space(Path()).available >> 20); // others write meanwhile
    EXPECT_NEAR(TSFileSystem::GetFreeSpaceSize(Path()), free, 256);
    std::vector<unsigned char> data(1000, 7);
    EXPECT_TRUE(TSFileSystem::GetFileContents(file, data));
    fs::resize_file(Write("huge"), 0x100000005); // 5 in 32 bits
    EXPECT_GT(TSFileSystem::GetLastModificationTime(Path("huge")), 0);
    EXPECT_EQ(TSFileSystem::GetDirSize(Path()), 5 + bytes.size());
    for (const std::string& failing : {Write("empty", ""), Path("none"), Path("huge"), Path()})
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
    EXPECT_FALSE(TSFileSystem::MoveFile(source, Path("target"), true)); // it is gone
    EXPECT_EQ(qortest::ReadFile(stick) + qortest::ReadFile(other) +
                  qortest::ReadFile(Path("target")),
              "newnewnew");
    fs::create_symlink(other, Path("tree"));
    EXPECT_TRUE(TSFileSystem::RemoveFile(Path("none")) && TSFileSystem::RemoveFolder(Path("none")));
    EXPECT_FALSE(TSFileSystem::RemoveFile(Path("media")));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(Path("tree")) && fs::exists(other));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(Path("media")) && !fs::exists(Path("media")));
}

TEST_F(FileSystem, MakeDirOpensOnlyTheDirectoryItMade)
{
    umask(022);
    EXPECT_TRUE(TSFileSystem::MakeDir(Path("x/y/z"), true));
    EXPECT_TRUE(TSFileSystem::MakeDir(Path("x/y"), true)); // is there
    EXPECT_FALSE(TSFileSystem::MakeDir(Write("file") + "/below/it", false));
    refused = "mkdir"; // somebody was faster
    EXPECT_TRUE(TSFileSystem::MakeDir(Path("theirs"), true));
    EXPECT_EQ(fs::status(Path("x/y")).permissions(), 0755U);
    EXPECT_EQ(fs::status(Path("x/y/z")).permissions() & fs::status(Path("theirs")).permissions(),
              0777U);
    refused = "chmod";
    EXPECT_TRUE(TSFileSystem::MakeDir(Path("opt/media/USB0/new"), true));
    EXPECT_FALSE(TSFileSystem::MakeDir(Path("media/USB0"), true));
    refused = "chown"; // which is asked for with both ids only
    EXPECT_TRUE(TSFileSystem::SetPermissions(Path("file"), fs::owner_read, 1, -1));
    EXPECT_TRUE(TSFileSystem::SetPermissions(Path("file"), fs::add_perms | fs::group_read, -1, 1));
    EXPECT_FALSE(TSFileSystem::SetPermissions(Path("file"), fs::add_perms | fs::group_read, 1, 1));
    EXPECT_EQ(qortest::LogCapture::Count(qortest::LOG_ERROR, "Errno: 1, Operation not permitted"),
              1U);
    EXPECT_EQ(fs::status(Path("file")).permissions(), 0440U);
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
        EXPECT_TRUE(TSFileSystem::GenerateUniqueName(Path(), name, unique));
        names += unique.string().substr(Path().size());
    }
    EXPECT_EQ(names, "/plain_1000/a.tar_1.gz/new.xml");
    EXPECT_FALSE(TSFileSystem::GenerateUniqueName(Path("plain"), "x", unique)); // no directory
}
