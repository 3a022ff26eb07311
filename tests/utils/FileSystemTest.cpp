// Queries and changes of the file system.
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include <gtest/gtest.h>

#include <qor/QORFileSystem.h>

#include "LogCapture.h"
#include "SystemCalls.h"
#include "TemporaryDirectory.h"

namespace fs = boost::filesystem;
using qor::TSFileSystem;
using qortest::LogCapture;
using qortest::SystemCalls;

namespace
{

class FileSystemTest : public testing::Test
{
protected:
    FileSystemTest()
    {
        SystemCalls::Reset();
        LogCapture::Clear();
    }
    ~FileSystemTest() override
    {
        SystemCalls::Reset();
    }

    fs::path At(const std::string& name) const
    {
        return m_directory.Path() / name;
    }

    // The log holds exactly this one line, as far as it is given.
    static void ExpectLog(int priority, const std::string& message)
    {
        EXPECT_EQ(LogCapture::Count(priority, ") > " + message), 1U) << message;
        EXPECT_EQ(LogCapture::Lines().size(), 1U) << message;
        LogCapture::Clear();
    }

    static void ExpectNoLog()
    {
        EXPECT_TRUE(LogCapture::Lines().empty());
    }

    static std::string Content(const fs::path& file)
    {
        std::vector<unsigned char> data;
        TSFileSystem::GetFileContents(file.string(), data);
        return std::string(data.begin(), data.end());
    }

    static int Mode(const fs::path& path)
    {
        return static_cast<int>(fs::status(path).permissions());
    }

    qortest::TemporaryDirectory m_directory;
};

TEST_F(FileSystemTest, Existence)
{
    const fs::path file = m_directory.Write("file");
    ASSERT_EQ(mkfifo(At("fifo").c_str(), 0600), 0);
    m_directory.Link("loop", "loop");
    m_directory.Link("dangling", "nowhere");
    EXPECT_TRUE(TSFileSystem::FileExists(m_directory.Path()));
    EXPECT_TRUE(TSFileSystem::FileExists(file));
    EXPECT_TRUE(TSFileSystem::FileExists(At("fifo")));
    EXPECT_FALSE(TSFileSystem::FileExists(At("loop")));
    EXPECT_FALSE(TSFileSystem::FileExists(At("dangling")));
    EXPECT_FALSE(TSFileSystem::FileExists(file / "below"));
    EXPECT_TRUE(TSFileSystem::FolderExists(m_directory.Path()));
    ExpectNoLog();
    EXPECT_FALSE(TSFileSystem::FolderExists(At("loop")));
    ExpectLog(qortest::LOG_ERROR, "File " + At("loop").string() + " does not exist");
    EXPECT_FALSE(TSFileSystem::FolderExists(file));
    ExpectLog(qortest::LOG_ERROR, "Path " + file.string() + " exists but it is not a directory");
}

TEST_F(FileSystemTest, ModificationTimeInWholeSeconds)
{
    const fs::path file = m_directory.Write("file");
    const timeval times[] = {{1, 0}, {1234567890, 999999}};
    ASSERT_EQ(utimes(file.c_str(), times), 0);
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(file), 1234567890);
    ExpectNoLog();
    EXPECT_EQ(TSFileSystem::GetLastModificationTime(At("none")), 0);
    ExpectLog(qortest::LOG_ERROR, "ERROR");
}

TEST_F(FileSystemTest, FreeSpaceIsWhatUnprivilegedUsersHave)
{
    SystemCalls::smallFileSystem = m_directory.Path().string();
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(m_directory.Path()), 3);
    ExpectNoLog();
    EXPECT_EQ(TSFileSystem::GetFreeSpaceSize(At("none")), -1);
    ExpectLog(qortest::LOG_ERROR, "Error checking free space: boost error 2");
}

TEST_F(FileSystemTest, FileContents)
{
    const std::string bytes("\0\1\2 \xff\n\r890", 10);
    std::vector<unsigned char> data(1000, 7);
    EXPECT_TRUE(TSFileSystem::GetFileContents(m_directory.Write("ten", bytes).string(), data));
    EXPECT_EQ(data, std::vector<unsigned char>(bytes.begin(), bytes.end()));
    ExpectNoLog();

    const auto before = data;
    const std::string empty = m_directory.Write("empty", "").string();
    EXPECT_FALSE(TSFileSystem::GetFileContents(empty, data));
    ExpectLog(qortest::LOG_ERROR, "File " + empty + " size is 0!");
    const std::string missing = At("none").string();
    EXPECT_FALSE(TSFileSystem::GetFileContents(missing, data));
    ExpectLog(qortest::LOG_DEBUG, "File " + missing + " opening failed");
    const fs::path huge = m_directory.Write("huge");
    fs::resize_file(huge, 0x80000000);
    EXPECT_FALSE(TSFileSystem::GetFileContents(huge.string(), data));
    ExpectLog(qortest::LOG_ERROR, "Error reading file: " + huge.string());
    EXPECT_FALSE(TSFileSystem::GetFileContents("/proc/self/mem", data)); // has no end to seek to
    ExpectLog(qortest::LOG_ERROR, "");
    EXPECT_EQ(data, before);
}

TEST_F(FileSystemTest, CopyReplacesOnlyWhenAsked)
{
    const fs::path source = m_directory.Write("source", "new");
    const fs::path destination = m_directory.Write("destination", "older");
    EXPECT_FALSE(TSFileSystem::CopyFile(source, destination, false));
    ExpectLog(qortest::LOG_ERROR, "Could not copy file: error code: File exists");
    EXPECT_EQ(Content(destination), "older");
    EXPECT_TRUE(TSFileSystem::CopyFile(source, destination, true));
    EXPECT_EQ(Content(destination), "new");
    EXPECT_TRUE(TSFileSystem::CopyFile(source, At("fresh"), false));
    EXPECT_EQ(Content(At("fresh")), "new");
    ExpectNoLog();
}

TEST_F(FileSystemTest, MoveRenamesAndReplaces)
{
    const fs::path source = m_directory.Write("source", "new");
    const fs::path destination = m_directory.Write("destination", "older");
    EXPECT_TRUE(TSFileSystem::MoveFile(source, destination, false));
    EXPECT_EQ(Content(destination), "new");
    EXPECT_FALSE(fs::exists(source));
    ExpectNoLog();
    EXPECT_FALSE(TSFileSystem::MoveFile(source, destination, true));
    ExpectLog(qortest::LOG_ERROR,
              "Could not move/rename file: error code: No such file or directory");
}

TEST_F(FileSystemTest, MoveToUsbMediaCopies)
{
    const fs::path source = m_directory.Write("source", "new");
    const fs::path destination = m_directory.MakeDirectory("media/USB0") / "target";
    EXPECT_TRUE(TSFileSystem::MoveFile(source, destination, false));
    EXPECT_EQ(Content(source), "new");
    EXPECT_EQ(Content(destination), "new");
    ExpectNoLog();

    EXPECT_FALSE(TSFileSystem::MoveFile(source, destination, false));
    const auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_NE(lines[0].text.find("Could not copy file: error code: "), std::string::npos);
    EXPECT_NE(lines[1].text.find("Failed to copy file: " + source.string()), std::string::npos);
    EXPECT_TRUE(TSFileSystem::MoveFile(source, destination, true));
}

TEST_F(FileSystemTest, Removal)
{
    m_directory.Write("tree/sub/file");
    m_directory.Link("tree/link", "../kept");
    m_directory.Write("kept");
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("none")));
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("kept") / "below"));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(At("none")));
    ExpectNoLog();
    EXPECT_FALSE(TSFileSystem::RemoveFile(At("tree")));
    ExpectLog(qortest::LOG_ERROR, "Couldnt delete file: " + At("tree").string() +
                                      ", boost error: " + std::to_string(ENOTEMPTY));
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("tree/sub/file")));
    EXPECT_TRUE(TSFileSystem::RemoveFile(At("tree/sub")));
    EXPECT_TRUE(TSFileSystem::RemoveFolder(At("tree")));
    EXPECT_FALSE(fs::exists(At("tree")));
    EXPECT_TRUE(fs::exists(At("kept")));

    EXPECT_FALSE(TSFileSystem::RemoveFolder("/proc/self/fdinfo"));
    ExpectLog(qortest::LOG_ERROR, "Could not delete folder: /proc/self/fdinfo, error code: ");
}

TEST_F(FileSystemTest, PermissionsAndOwner)
{
    const fs::path file = m_directory.Write("file");
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::owner_read, 1000, -1));
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::add_perms | fs::group_read, -1, 1000));
    EXPECT_EQ(Mode(file), 0440);
    EXPECT_EQ(SystemCalls::chownCalls, 0);
    EXPECT_TRUE(TSFileSystem::SetPermissions(file, fs::owner_all, static_cast<int>(geteuid()),
                                             static_cast<int>(getegid())));
    EXPECT_EQ(SystemCalls::chownCalls, 1);
    ExpectNoLog();

    SystemCalls::chownError = EPERM;
    EXPECT_FALSE(TSFileSystem::SetPermissions(file, fs::owner_read, 0, 0));
    ExpectLog(qortest::LOG_ERROR,
              "Couldnt change ownership of " + file.string() + ". Errno: 1, " + strerror(EPERM));
    EXPECT_EQ(Mode(file), 0400);
    EXPECT_FALSE(TSFileSystem::SetPermissions(At("none"), fs::owner_read, 0, 0));
    ExpectLog(qortest::LOG_ERROR, "Couldnt set permissions for: " + At("none").string());
    EXPECT_EQ(SystemCalls::chownCalls, 2);
}

TEST_F(FileSystemTest, MakeDirCreatesWhatIsMissing)
{
    const mode_t mask = umask(022);
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/y/z"), true));
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/plain"), false));
    EXPECT_EQ(Mode(At("x/y")), 0755);
    EXPECT_EQ(Mode(At("x/y/z")), 0777);
    EXPECT_EQ(Mode(At("x/plain")), 0755);
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, " does not exist"), 2U);
    EXPECT_EQ(LogCapture::Lines().size(), 2U);
    LogCapture::Clear();
    EXPECT_TRUE(TSFileSystem::MakeDir(At("x/plain"), true));
    EXPECT_EQ(Mode(At("x/plain")), 0755);
    ExpectNoLog();
    umask(mask);
}

TEST_F(FileSystemTest, MakeDirOnAFile)
{
    const fs::path file = m_directory.Write("file");
    SystemCalls::smallFileSystem = m_directory.Path().string();
    EXPECT_FALSE(TSFileSystem::MakeDir(file, true));
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "exists but it is not a directory"), 2U);
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Unable to create directory: " + file.string() +
                                                        ", error: File exists, free space: 3 mb"),
              1U);

    // Where not even the space can be asked for, that is said first.
    LogCapture::Clear();
    EXPECT_FALSE(TSFileSystem::MakeDir(file / "below" / "it", false));
    const auto lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_NE(lines[2].text.find("Error checking free space: boost error 20"), std::string::npos);
    EXPECT_NE(lines[3].text.find("free space: -1 mb"), std::string::npos);
}

TEST_F(FileSystemTest, MakeDirToleratesAnotherCreator)
{
    SystemCalls::mkdirComesSecond = true;
    EXPECT_TRUE(TSFileSystem::MakeDir(At("theirs"), true));
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR,
                                "Dir created by other process " + At("theirs").string()),
              1U);
    EXPECT_EQ(Mode(At("theirs")), 0777);
}

TEST_F(FileSystemTest, RefusedPermissionsAreForgivenOnUsbMediaOnly)
{
    m_directory.MakeDirectory("opt/media");
    SystemCalls::chmodError = EPERM;
    EXPECT_TRUE(TSFileSystem::MakeDir(At("opt/media/USB0/new"), true));
    EXPECT_FALSE(TSFileSystem::MakeDir(At("media/USB0"), true));
    EXPECT_TRUE(fs::is_directory(At("media/USB0")));
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Couldnt set permissions for: "), 2U);
}

TEST_F(FileSystemTest, UniqueNames)
{
    for (const char* name : {"report.xml", "report_1.xml", "archive.tar.gz", "plain", ".hidden"})
    {
        m_directory.Write(name);
    }
    const auto unique = [this](const std::string& name)
    {
        fs::path result;
        EXPECT_TRUE(TSFileSystem::GenerateUniqueName(m_directory.Path(), name, result));
        return result;
    };
    EXPECT_EQ(unique("report.xml"), At("report_2.xml"));
    EXPECT_EQ(unique("archive.tar.gz"), At("archive.tar_1.gz"));
    EXPECT_EQ(unique("plain"), At("plain_1"));
    EXPECT_EQ(unique(".hidden"), At("_1.hidden"));
    EXPECT_EQ(unique("none/new.xml"), At("none/new.xml"));
    for (int i = 2; i < 1000; ++i)
    {
        m_directory.Write("report_" + std::to_string(i) + ".xml", "");
    }
    EXPECT_EQ(unique("report.xml"), At("report_1000.xml"));
    ExpectNoLog();

    fs::path result;
    EXPECT_FALSE(TSFileSystem::GenerateUniqueName(At("plain"), "report.xml", result));
    ExpectLog(qortest::LOG_DEBUG, "Not expected boost error 20");
    EXPECT_EQ(result, At("plain/report.xml"));
}

} // namespace
