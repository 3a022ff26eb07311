// Walks, queries and changes of real trees.
#include <dirent.h>
#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

#include <qor/QORFileSystem.h>

#include "LogCapture.h"
#include "Tree.h"

namespace fs = boost::filesystem;
using qor::TSFileSystem;
using qortest::ReadFile;

static std::string refused; // the call that reports a failure
static int successes;       // of it before

#define QORTEST_REFUSABLE(type, failure, error, name, parameters, ...)                             \
    extern "C" __attribute__((visibility("default"))) type name parameters                         \
    {                                                                                              \
        static const auto real = reinterpret_cast<decltype(&name)>(dlsym(RTLD_NEXT, #name));       \
        const auto result = real(__VA_ARGS__);                                                     \
        const bool refuse = refused == #name && successes-- == 0;                                  \
        errno = refuse ? error : errno;                                                            \
        return refuse ? failure : result;                                                          \
    }
QORTEST_REFUSABLE(dirent*, nullptr, EIO, readdir, (DIR * pDirectory), pDirectory)
QORTEST_REFUSABLE(int, -1, EPERM, chmod, (const char* path, mode_t mode) noexcept, path, mode)
QORTEST_REFUSABLE(int, -1, EPERM, chown, (const char* path, uid_t user, gid_t group) noexcept, path,
                  user, group)
QORTEST_REFUSABLE(int, -1, EEXIST, mkdir, (const char* path, mode_t mode) noexcept, path, mode)

namespace
{

using Names = std::multiset<fs::path>;

class FileSystem : public testing::Test, protected qortest::Tree
{
protected:
    ~FileSystem() override
    {
        refused.clear();
    }

    static void Refuse(const char* name, int after = 0)
    {
        refused = name;
        successes = after;
    }

    Names Files(const std::string& extension) const
    {
        std::vector<fs::path> files;
        const bool ok = TSFileSystem::GetFiles(files, At(), extension);
        files.resize(files.size() + (ok ? 0 : 1), "failed");
        return Names(files.begin(), files.end());
    }

    Names List(const std::string& extension, const std::string& part = "") const
    {
        const auto files = TSFileSystem::GetFileList(At(), extension, part);
        return Names(files.begin(), files.end());
    }

    unsigned int Mode(const std::string& name) const
    {
        return fs::status(At(name)).permissions();
    }
};

TEST_F(FileSystem, ListingsSelectByExactExtensionAndByText)
{
    for (const char* name :
         {"a/x.xml", "top.XML", "two.dots.xml", ".xml", "xml", "dot.", "d.xml/plain"})
    {
        Write(name);
    }
    EXPECT_EQ(Files(".xml"), (Names{".xml", "two.dots.xml", "x.xml"}));
    EXPECT_EQ(Files("xml"), Names());
    EXPECT_EQ(Files(""), (Names{"plain", "xml"}));
    EXPECT_EQ(Files("."), Names{"dot."});
    std::vector<fs::path> files = {"kept"};
    EXPECT_FALSE(TSFileSystem::GetFiles(files, At("none"), ""));
    EXPECT_EQ(files.size(), 1U);
    EXPECT_EQ(List(".xml"), (Names{At(".xml"), At("two.dots.xml")}));
    EXPECT_EQ(List("", "/two"), Names{At("two.dots.xml")});
    EXPECT_EQ(List("", At()).size(), 5U); // the directory's own path counts
    EXPECT_EQ(TSFileSystem::GetDirList(At()), (std::set<fs::path>{At("a"), At("d.xml")}));
    EXPECT_TRUE(TSFileSystem::GetDirList(At("none")).empty());
}

TEST_F(FileSystem, NamesAreBytesAndNoDirectoryIsVisitedTwice)
{
    Write("sub \xfd/new\nline.x", "123");
    Write("sub \xfd/sp \xff\xfe.x", "12345");
    Link("sub \xfd/up", "..");
    Link("alias", "sub \xfd");
    Link("alias.x", "sub \xfd/new\nline.x");
    EXPECT_EQ(Files(".x"), (Names{"alias.x", "new\nline.x", "sp \xff\xfe.x"}));
    EXPECT_EQ(TSFileSystem::GetDirSize(At()), 11U);
}

// A link that leads nowhere fails its query without an exception, and what comes later clears that;
// one that leads to itself has no status at all.
TEST_F(FileSystem, OnlyTheLatestErrorOfAWalkCounts)
{
    Link("dangling", "nowhere");
    EXPECT_EQ(Files(""), Names{"failed"});
    fs::create_directory(At("sub")); // opened later
    EXPECT_EQ(Files(""), Names());
    EXPECT_THROW(TSFileSystem::GetDirSize(At()), fs::filesystem_error);
    Link("loop", "loop");
    EXPECT_THROW(Files(""), fs::filesystem_error);
    EXPECT_THROW(List(""), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirList(At()), fs::filesystem_error);
}

TEST_F(FileSystem, DirectoriesThatCannotBeReadToTheirEnd)
{
    Write("closed/file.x");
    Refuse("readdir", 3); // "." and "..", then the directory is seen
    EXPECT_THROW(Files(""), fs::filesystem_error);
    Refuse("readdir", 3);
    EXPECT_EQ(TSFileSystem::GetDirSize(At()), 20971520U);
    if (geteuid() == 0)
    {
        GTEST_SKIP() << "permissions do not bind root";
    }
    fs::permissions(At("closed"), fs::owner_read); // entries with types, but without a status
    EXPECT_THROW(Files(".x"), fs::filesystem_error);
    fs::permissions(At("closed"), fs::no_perms);
    EXPECT_EQ(Files(".x"), Names{"failed"});
    EXPECT_EQ(TSFileSystem::GetDirSize(At()), 0U);
    fs::permissions(At("closed"), fs::owner_all);
}

TEST_F(FileSystem, DirSizeAddsUpModulo4GiB)
{
    constexpr std::uintmax_t GIB = 1024 * 1024 * 1024;
    fs::resize_file(Write("a/sparse"), GIB * 5 / 2);
    fs::resize_file(Write("b/c/sparse"), GIB * 5 / 2);
    EXPECT_EQ(TSFileSystem::GetDirSize(At()), GIB);
    EXPECT_EQ(TSFileSystem::GetDirSize(At("none")), 0U);
    ASSERT_EQ(mkfifo(At("fifo").c_str(), 0600), 0); // which has no size
    EXPECT_THROW(TSFileSystem::GetDirSize(At()), fs::filesystem_error);
    EXPECT_EQ(Files(""), (Names{"sparse", "sparse"}));
}

TEST_F(FileSystem, ExistenceTimeAndSpace)
{
    const std::string file = Write("file"), loop = Link("loop", "loop");
    EXPECT_TRUE(TSFileSystem::FileExists(file) && TSFileSystem::FolderExists(At()));
    EXPECT_FALSE(TSFileSystem::FileExists(loop) || TSFileSystem::FileExists(file + "/below"));
    EXPECT_FALSE(TSFileSystem::FolderExists(loop) || TSFileSystem::FolderExists(file));
    fs::last_write_time(file, 1234567890);
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(file), 1234567890);
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(At("none")), 0);
    const double free = static_cast<double>(fs::space(At()).available) / (1024 * 1024);
    EXPECT_NEAR(TSFileSystem::GetFreeSpaceSize(At()), free, 256); // others write meanwhile
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(At("none")), -1);
}

TEST_F(FileSystem, FileContentsAreAllOrNothing)
{
    const std::string bytes("\0\1\2 \xff\n\r890", 10);
    std::vector<unsigned char> data(1000, 7);
    EXPECT_TRUE(TSFileSystem::GetFileContents(Write("ten", bytes), data));
    fs::resize_file(Write("huge"), 0x100000005); // 5 in 32 bits
    for (const std::string& failing : {Write("empty", ""), At("none"), At("huge"), At()})
    {
        EXPECT_FALSE(TSFileSystem::GetFileContents(failing, data)) << failing;
    }
    EXPECT_EQ(std::string(data.begin(), data.end()), bytes);
}

TEST_F(FileSystem, CopiesReplaceOnlyWhenAskedAndMovesToUsbMediaAreCopies)
{
    const std::string source = Write("source", "new"), other = Write("other", "old");
    const std::string stick = Write("media/USB0/file", "older");
    EXPECT_FALSE(TSFileSystem::CopyFile(source, stick, false));
    EXPECT_FALSE(TSFileSystem::MoveFile(source, stick, false));
    EXPECT_EQ(ReadFile(stick), "older");
    EXPECT_TRUE(TSFileSystem::MoveFile(source, stick, true));
    EXPECT_TRUE(TSFileSystem::CopyFile(source, other, true));
    EXPECT_EQ(ReadFile(stick) + ReadFile(other) + ReadFile(source), "newnewnew");
    EXPECT_TRUE(TSFileSystem::MoveFile(source, Write("target", "old"), false));
    EXPECT_FALSE(TSFileSystem::MoveFile(source, At("target"), true)); // it is gone
    EXPECT_EQ(ReadFile(At("target")), "new");
}

TEST_F(FileSystem, RemovalOfNothingSucceeds)
{
    Link("tree", Write("kept/file"));
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("none")) && TSFileSystem::RemoveFolder(At("none")));
    EXPECT_FALSE(TSFileSystem::RemoveFile(At("kept")));
    EXPECT_FALSE(TSFileSystem::RemoveFolder(At(std::string(300, 'x'))));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(At("tree")) && fs::exists(At("kept/file")));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(At("kept")) && !fs::exists(At("kept")));
}

TEST_F(FileSystem, OwnerIsSetOnlyWithBothIds)
{
    const std::string file = Write("file");
    qortest::LogCapture::Clear();
    Refuse("chown");
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::owner_read, 1, -1));
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::add_perms | fs::group_read, -1, 1));
    EXPECT_EQ(Mode("file"), 0440U);
    EXPECT_FALSE(TSFileSystem::SetPermissions(file, fs::owner_all, 1, 1));
    EXPECT_EQ(qortest::LogCapture::Count(qortest::LOG_ERROR, file + ". Errno: 1, Operation not"),
              1U);
}

TEST_F(FileSystem, MakeDirOpensOnlyTheDirectoryItMade)
{
    umask(022);
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/y/z"), true));
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/y"), true)); // is there
    Refuse("mkdir");                                     // somebody was faster
    EXPECT_TRUE(TSFileSystem::MakeDir(At("theirs"), true));
    EXPECT_EQ(Mode("x/y"), 0755U);
    EXPECT_EQ(Mode("x/y/z") & Mode("theirs"), 0777U);
    for (const char* path : {"opt/media/USB0/new", "media/USB0"})
    {
        Refuse("chmod");
        EXPECT_EQ(TSFileSystem::MakeDir(At(path), true), path[0] == 'o');
        EXPECT_TRUE(fs::is_directory(At(path)));
    }
    EXPECT_FALSE(TSFileSystem::MakeDir(Write("file") + "/below/it", false));
}

TEST_F(FileSystem, UniqueNamesCountBeforeTheLastDot)
{
    Write("archive.tar.gz");
    Write("plain");
    for (int i = 1; i < 1000; ++i)
    {
        Write("plain_" + std::to_string(i), "");
    }
    fs::path unique;
    const std::pair<const char*, const char*> cases[] = {
        {"plain", "plain_1000"}, {"archive.tar.gz", "archive.tar_1.gz"}, {"new.xml", "new.xml"}};
    for (const auto& [name, expected] : cases)
    {
        EXPECT_TRUE(TSFileSystem::GenerateUniqueName(At(), name, unique));
        EXPECT_EQ(unique, At(expected));
    }
    EXPECT_FALSE(TSFileSystem::GenerateUniqueName(At("plain"), "x", unique)); // no directory
}

} // namespace
