// Queries and changes of the file system.
#include <sys/time.h>

#include <gtest/gtest.h>

#include <qor/QORFileSystem.h>

#include "Logged.h"
#include "SystemCalls.h"
#include "TemporaryDirectory.h"

namespace fs = boost::filesystem;
using qor::TSFileSystem;
using qortest::systemCalls;
using qortest::TLines;

namespace
{

class FileSystemTest : public testing::Test, protected qortest::TemporaryDirectory
{
protected:
    FileSystemTest()
    {
        systemCalls = qortest::SystemCalls();
        Logged();
    }

    static TLines Logged()
    {
        return qortest::Logged("QORFileSystem.cpp");
    }

    std::string Content(const std::string& name) const
    {
        std::vector<unsigned char> data;
        TSFileSystem::GetFileContents(At(name), data);
        return std::string(data.begin(), data.end());
    }

    int Mode(const std::string& name) const
    {
        return static_cast<int>(fs::status(At(name)).permissions());
    }
};

TEST_F(FileSystemTest, Existence)
{
    const std::string file = Write("file");
    ASSERT_EQ(mkfifo(At("fifo").c_str(), 0600), 0);
    const std::string loop = Link("loop", "loop");
    for (const std::string& path : {file, At("fifo"), At("")})
    {
        EXPECT_TRUE(TSFileSystem::FileExists(path)) << path;
    }
    for (const std::string& path : {loop, Link("dangling", "nowhere"), file + "/below"})
    {
        EXPECT_FALSE(TSFileSystem::FileExists(path)) << path;
    }
    EXPECT_TRUE(TSFileSystem::FolderExists(At("")));
    EXPECT_EQ(Logged(), TLines());
    EXPECT_FALSE(TSFileSystem::FolderExists(loop));
    EXPECT_FALSE(TSFileSystem::FolderExists(file));
    EXPECT_EQ(Logged(), (TLines{"E File " + loop + " does not exist",
                                "E Path " + file + " exists but it is not a directory"}));
}

TEST_F(FileSystemTest, ModificationTimeAndFreeSpaceAreRoundedDown)
{
    const timeval times[] = {{1, 0}, {1234567890, 999999}};
    ASSERT_EQ(utimes(Write("file").c_str(), times), 0);
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(At("file")), 1234567890);
    systemCalls.smallFileSystem = At("");
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(At("")), 3);
    EXPECT_EQ(Logged(), TLines());
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(At("none")), 0);
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(At("none")), -1);
    EXPECT_EQ(Logged(), (TLines{"E ERROR", "E Error checking free space: boost error 2"}));
}

TEST_F(FileSystemTest, FileContentsAreAllOrNothing)
{
    const std::string bytes("\0\1\2 \xff\n\r890", 10);
    std::vector<unsigned char> data(1000, 7);
    EXPECT_TRUE(TSFileSystem::GetFileContents(Write("ten", bytes), data));
    EXPECT_EQ(data, std::vector<unsigned char>(bytes.begin(), bytes.end()));
    EXPECT_EQ(Logged(), TLines());

    const auto before = data;
    EXPECT_FALSE(TSFileSystem::GetFileContents(Write("empty", ""), data));
    EXPECT_FALSE(TSFileSystem::GetFileContents(At("none"), data));
    fs::resize_file(Write("huge"), 0x100000005); // 5 in 32 bits
    EXPECT_FALSE(TSFileSystem::GetFileContents(At("huge"), data));
    EXPECT_EQ(Logged(), (TLines{"E File " + At("empty") + " size is 0!",
                                "D File " + At("none") + " opening failed",
                                "E Error reading file: " + At("huge")}));
    EXPECT_EQ(data, before);
}

TEST_F(FileSystemTest, CopyReplacesOnlyWhenAsked)
{
    Write("source", "new");
    Write("destination", "older");
    EXPECT_FALSE(TSFileSystem::CopyFile(At("source"), At("destination"), false));
    EXPECT_EQ(Logged(), TLines{"E Could not copy file: error code: File exists"});
    EXPECT_EQ(Content("destination"), "older");
    EXPECT_TRUE(TSFileSystem::CopyFile(At("source"), At("destination"), true));
    EXPECT_TRUE(TSFileSystem::CopyFile(At("source"), At("fresh"), false));
    EXPECT_EQ(Content("destination") + Content("fresh") + Content("source"), "newnewnew");
}

TEST_F(FileSystemTest, MoveRenamesButCopiesToUsbMedia)
{
    Write("source", "new");
    Write("destination", "older");
    EXPECT_TRUE(TSFileSystem::MoveFile(At("source"), At("destination"), false));
    EXPECT_EQ(Content("destination"), "new");
    EXPECT_FALSE(fs::exists(At("source")));
    Logged();
    EXPECT_FALSE(TSFileSystem::MoveFile(At("source"), At("destination"), true));
    EXPECT_EQ(Logged(), TLines{"E Could not move/rename file: error code: No such file or "
                               "directory"});

    const std::string stick = Write("media/USB0/file", "older");
    EXPECT_FALSE(TSFileSystem::MoveFile(At("destination"), stick, false));
    EXPECT_EQ(Logged(), (TLines{"E Could not copy file: error code: File exists",
                                "E Failed to copy file: " + At("destination")}));
    EXPECT_TRUE(TSFileSystem::MoveFile(At("destination"), stick, true));
    EXPECT_EQ(Content("destination") + Content("media/USB0/file"), "newnew");
}

TEST_F(FileSystemTest, RemovalOfNothingSucceeds)
{
    Write("tree/sub/file");
    Write("kept");
    Link("tree/link", "../kept");
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("none")));
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("kept/below")));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(At("none")));
    EXPECT_EQ(Logged(), TLines());
    EXPECT_FALSE(TSFileSystem::RemoveFile(At("tree")));
    const std::string impossible = At(std::string(300, 'x'));
    EXPECT_FALSE(TSFileSystem::RemoveFolder(impossible));
    EXPECT_EQ(Logged(), (TLines{"E Couldnt delete file: " + At("tree") + ", boost error: 39",
                                "E Could not delete folder: " + impossible +
                                    ", error code: File name too long"}));
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("tree/sub/file")));
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("tree/sub")));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(At("tree")));
    EXPECT_FALSE(fs::exists(At("tree")));
    EXPECT_TRUE(fs::exists(At("kept")));
}

TEST_F(FileSystemTest, OwnerIsSetOnlyWithBothIdsAndAfterTheBits)
{
    const std::string file = Write("file");
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::owner_read, 1000, -1));
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::add_perms | fs::group_read, -1, 1000));
    EXPECT_EQ(Mode("file"), 0440);
    EXPECT_EQ(systemCalls.chownCalls, 0);
    const int user = static_cast<int>(geteuid());
    const int group = static_cast<int>(getegid());
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::owner_all, user, group));
    EXPECT_EQ(Logged(), TLines());

    systemCalls.chownError = EPERM;
    EXPECT_FALSE(TSFileSystem::SetPermissions(file, fs::owner_read, 0, 0));
    EXPECT_FALSE(TSFileSystem::SetPermissions(At("none"), fs::owner_read, 0, 0));
    EXPECT_EQ(Logged(), (TLines{"E Couldnt change ownership of " + file +
                                    ". Errno: 1, Operation not permitted",
                                "E Couldnt set permissions for: " + At("none")}));
    EXPECT_EQ(Mode("file"), 0400);
    EXPECT_EQ(systemCalls.chownCalls, 2);
}

TEST_F(FileSystemTest, MakeDirOpensOnlyTheDirectoryItMade)
{
    umask(022);
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/y/z"), true));
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/plain"), false));
    EXPECT_EQ(Logged(), (TLines{"E File " + At("x/y/z") + " does not exist",
                                "E File " + At("x/plain") + " does not exist"}));
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/plain"), true));
    EXPECT_EQ(Mode("x/y"), 0755);
    EXPECT_EQ(Mode("x/y/z"), 0777);
    EXPECT_EQ(Mode("x/plain"), 0755);
    EXPECT_EQ(Logged(), TLines());

    systemCalls.mkdirComesSecond = true;
    EXPECT_TRUE(TSFileSystem::MakeDir(At("theirs"), true));
    EXPECT_EQ(Logged(), (TLines{"E File " + At("theirs") + " does not exist",
                                "E Dir created by other process " + At("theirs")}));
    EXPECT_EQ(Mode("theirs"), 0777);
}

TEST_F(FileSystemTest, MakeDirOnAFile)
{
    const std::string file = Write("file");
    const std::string below = file + "/below/it";
    systemCalls.smallFileSystem = At("");
    EXPECT_FALSE(TSFileSystem::MakeDir(file, true));
    EXPECT_EQ(Logged(), (TLines{"E Path " + file + " exists but it is not a directory",
                                "E Path " + file + " exists but it is not a directory",
                                "E Unable to create directory: " + file +
                                    ", error: File exists, free space: 3 mb"}));
    EXPECT_FALSE(TSFileSystem::MakeDir(below, false));
    const TLines lines = Logged();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[2], "E Error checking free space: boost error 20");
    EXPECT_NE(lines[3].find(", free space: -1 mb"), std::string::npos);
}

TEST_F(FileSystemTest, RefusedPermissionsAreForgivenOnUsbMediaOnly)
{
    systemCalls.chmodError = EPERM;
    EXPECT_TRUE(TSFileSystem::MakeDir(At("opt/media/USB0/new"), true));
    EXPECT_FALSE(TSFileSystem::MakeDir(At("media/USB0"), true));
    EXPECT_TRUE(fs::is_directory(At("media/USB0")));
    EXPECT_EQ(Logged()[1], "E Couldnt set permissions for: " + At("opt/media/USB0/new"));
}

TEST_F(FileSystemTest, UniqueNames)
{
    for (const char* name : {"report.xml", "report_1.xml", "archive.tar.gz", "plain"})
    {
        Write(name);
    }
    const auto unique = [this](const std::string& name)
    {
        fs::path result;
        EXPECT_TRUE(TSFileSystem::GenerateUniqueName(At(""), name, result));
        return result.filename().string();
    };
    EXPECT_EQ(unique("report.xml"), "report_2.xml");
    EXPECT_EQ(unique("archive.tar.gz"), "archive.tar_1.gz");
    EXPECT_EQ(unique("plain"), "plain_1");
    for (int i = 2; i < 1000; ++i)
    {
        Write("report_" + std::to_string(i) + ".xml", "");
    }
    EXPECT_EQ(unique("report.xml"), "report_1000.xml");
    fs::path result = At("none"); // may be the directory too
    EXPECT_TRUE(TSFileSystem::GenerateUniqueName(result, "new.xml", result));
    EXPECT_EQ(result, At("none/new.xml"));
    EXPECT_EQ(Logged(), TLines());
    EXPECT_FALSE(TSFileSystem::GenerateUniqueName(At("plain"), "report.xml", result));
    EXPECT_EQ(Logged(), TLines{"D Not expected boost error 20"});
    EXPECT_EQ(result, At("plain/report.xml"));
}

} // namespace
