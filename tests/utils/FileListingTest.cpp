// Walks and listings of real trees.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

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

using TNames = std::vector<std::string>;

class FileListingTest : public testing::Test
{
protected:
    FileListingTest()
    {
        SystemCalls::Reset();
        LogCapture::Clear();
    }

    // The names of GetFiles in a fixed order; the result goes to m_result.
    TNames Files(const std::string& extension)
    {
        std::vector<fs::path> files;
        m_result = TSFileSystem::GetFiles(files, m_tree.Path(), extension);
        return Sorted(files);
    }

    template <class TPaths>
    static TNames Sorted(const TPaths& paths)
    {
        TNames names;
        for (const fs::path& path : paths)
        {
            names.push_back(path.string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }

    std::string At(const std::string& name) const
    {
        return (m_tree.Path() / name).string();
    }

    bool EntriesTellTheirTypes() const
    {
        DIR* pDirectory = opendir(m_tree.Path().c_str());
        bool all = true;
        while (const dirent* pEntry = readdir(pDirectory))
        {
            all = all && pEntry->d_type != DT_UNKNOWN;
        }
        closedir(pDirectory);
        return all;
    }

    qortest::TemporaryDirectory m_tree;
    bool m_result = false;
};

TEST_F(FileListingTest, FilesAreSelectedByTheirExactExtension)
{
    for (const char* name : {"a/x.xml", "a/b/x.xml", "top.XML", "two.dots.xml", ".xml", "xml",
                             "dot.", "d.xml/plain", "b/x.xml.bak"})
    {
        m_tree.Write(name);
    }
    EXPECT_EQ(Files(".xml"), (TNames{".xml", "two.dots.xml", "x.xml", "x.xml"}));
    EXPECT_TRUE(m_result);
    EXPECT_EQ(Files("xml"), TNames());
    EXPECT_EQ(Files(""), (TNames{"plain", "xml"}));
    EXPECT_EQ(Files("."), TNames{"dot."});

    std::vector<fs::path> files = {"kept"};
    EXPECT_TRUE(TSFileSystem::GetFiles(files, m_tree.Path(), ".bak"));
    EXPECT_EQ(Sorted(files), (TNames{"kept", "x.xml.bak"}));
    EXPECT_FALSE(TSFileSystem::GetFiles(files, m_tree.Path() / "none", ".xml"));
    EXPECT_EQ(files.size(), 2U);
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(FileListingTest, WalkIsBreadthFirst)
{
    for (const char* name : {"a/a/a/3.x", "a/a/2.x", "a/1.x", "0.x"})
    {
        m_tree.Write(name);
    }
    std::vector<fs::path> files;
    EXPECT_TRUE(TSFileSystem::GetFiles(files, m_tree.Path(), ".x"));
    EXPECT_EQ(files, (std::vector<fs::path>{"0.x", "1.x", "2.x", "3.x"}));
}

TEST_F(FileListingTest, NamesAreBytes)
{
    const TNames names = {"new\nline.txt", "sp ace.txt", "\xff\xfe.txt"};
    for (const std::string& name : names)
    {
        m_tree.Write("sub \xfd/" + name, "123");
    }
    EXPECT_EQ(Files(".txt"), names);
    EXPECT_EQ(TSFileSystem::GetDirSize(m_tree.Path()), 9U);
    EXPECT_EQ(TSFileSystem::GetDirList(m_tree.Path()).begin()->string(), At("sub \xfd"));
}

TEST_F(FileListingTest, LinksAreFollowedButNoDirectoryIsVisitedTwice)
{
    m_tree.Write("real/file.x", "12345");
    m_tree.Link("real/up", "..");
    m_tree.Link("real/self", ".");
    m_tree.Link("alias", "real");
    m_tree.Link("alias.x", "real/file.x");
    qortest::TemporaryDirectory outside;
    outside.Write("far.x", "1");
    m_tree.Link("outside", outside.Path().string());
    EXPECT_EQ(Files(".x"), (TNames{"alias.x", "far.x", "file.x"}));
    EXPECT_TRUE(m_result);
    EXPECT_EQ(TSFileSystem::GetDirSize(m_tree.Path()), 11U);
}

// A link that leads nowhere fails its query without an exception; what comes later clears that.
TEST_F(FileListingTest, OnlyTheLatestErrorOfAWalkCounts)
{
    m_tree.Link("dangling", "nowhere");
    EXPECT_EQ(Files(""), TNames());
    EXPECT_FALSE(m_result);
    m_tree.MakeDirectory("sub");
    EXPECT_EQ(Files(""), TNames());
    EXPECT_TRUE(m_result);
    EXPECT_EQ(TSFileSystem::GetFileList(m_tree.Path(), "", ""), std::list<fs::path>());
}

TEST_F(FileListingTest, UnreadableStatusIsThrown)
{
    m_tree.Link("loop", "loop");
    std::vector<fs::path> files;
    EXPECT_THROW(TSFileSystem::GetFiles(files, m_tree.Path(), ""), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetFileList(m_tree.Path(), "", ""), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirList(m_tree.Path()), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirSize(m_tree.Path()), fs::filesystem_error);
}

// Its entries have types, but no status that could be read.
TEST_F(FileListingTest, DirectoryWithoutSearchPermissionIsNoShortcut)
{
    if (geteuid() == 0)
    {
        GTEST_SKIP() << "permissions do not bind root";
    }
    m_tree.Write("closed/file.x");
    fs::permissions(m_tree.Path() / "closed", fs::owner_read);
    std::vector<fs::path> files;
    EXPECT_THROW(TSFileSystem::GetFiles(files, m_tree.Path(), ".x"), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirSize(m_tree.Path()), fs::filesystem_error);
    fs::permissions(m_tree.Path() / "closed", fs::no_perms);
    EXPECT_FALSE(TSFileSystem::GetFiles(files, m_tree.Path(), ".x"));
    EXPECT_EQ(TSFileSystem::GetDirSize(m_tree.Path()), 0U);
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Error getting dir size, boost error 13"), 1U);
    fs::permissions(m_tree.Path() / "closed", fs::owner_all);
}

TEST_F(FileListingTest, ReadErrorInADirectory)
{
    m_tree.Write("one");
    m_tree.Write("two");
    // "." and "..", then one file is seen before the failure
    std::vector<fs::path> files;
    SystemCalls::failingRead = 4;
    EXPECT_THROW(TSFileSystem::GetFiles(files, m_tree.Path(), ""), fs::filesystem_error);
    SystemCalls::failingRead = 5;
    EXPECT_THROW(TSFileSystem::GetFileList(m_tree.Path(), "", ""), fs::filesystem_error);
    SystemCalls::failingRead = 5;
    EXPECT_EQ(TSFileSystem::GetDirSize(m_tree.Path()), 20971520U);
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Error getting dir size, boost error qor::"),
              1U);

    // A directory that gives no entry at all has not been opened.
    SystemCalls::failingRead = 1;
    EXPECT_FALSE(TSFileSystem::GetFiles(files, m_tree.Path(), ""));
    SystemCalls::failingRead = 1;
    EXPECT_TRUE(TSFileSystem::GetFileList(m_tree.Path(), "", "").empty());
    SystemCalls::failingRead = 1;
    EXPECT_EQ(TSFileSystem::GetDirSize(m_tree.Path()), 0U);
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Error getting dir size, boost error 5"), 1U);
}

TEST_F(FileListingTest, FewStatusQueriesForManyFiles)
{
    for (int i = 0; i < 100; ++i)
    {
        m_tree.Write("sub/" + std::to_string(i) + ".x");
    }
    if (!EntriesTellTheirTypes())
    {
        GTEST_SKIP() << "this file system does not tell types in its directories";
    }
    SystemCalls::statusQueries = 0;
    EXPECT_EQ(Files(".x").size(), 100U);
    EXPECT_LE(SystemCalls::statusQueries, 2); // one for each directory
    SystemCalls::statusQueries = 0;
    EXPECT_EQ(TSFileSystem::GetDirSize(m_tree.Path()), 100U);
    EXPECT_LE(SystemCalls::statusQueries, 103);
}

TEST_F(FileListingTest, FileListSelectsByExtensionAndText)
{
    m_tree.Write("one.log");
    m_tree.Write("two.txt");
    m_tree.Write("sub.log/three.log");
    m_tree.Link("link.log", "one.log");
    const auto list = [this](const char* extension, const std::string& text)
    { return Sorted(TSFileSystem::GetFileList(m_tree.Path(), extension, text)); };
    EXPECT_EQ(list("", ""), (TNames{At("link.log"), At("one.log"), At("two.txt")}));
    EXPECT_EQ(list(".log", ""), (TNames{At("link.log"), At("one.log")}));
    EXPECT_EQ(list("", "o"), list("", "")); // the text is found in the directory's own path
    EXPECT_EQ(list("", "/two"), TNames{At("two.txt")});
    EXPECT_EQ(list(".log", "/two"), TNames());
    EXPECT_TRUE(TSFileSystem::GetFileList(m_tree.Path() / "none", "", "").empty());
    EXPECT_TRUE(LogCapture::Lines().empty());
}

TEST_F(FileListingTest, DirListIsOrderedAndLogged)
{
    m_tree.MakeDirectory("b/inner");
    m_tree.MakeDirectory("a");
    m_tree.Link("c", "a");
    m_tree.Write("file");
    const auto directories = TSFileSystem::GetDirList(m_tree.Path());
    EXPECT_EQ(std::vector<fs::path>(directories.begin(), directories.end()),
              (std::vector<fs::path>{At("a"), At("b"), At("c")}));
    EXPECT_EQ(LogCapture::Lines().size(), 3U);
    EXPECT_EQ(LogCapture::Count(qortest::LOG_DEBUG, "Add " + At("b") + " dir to list"), 1U);
    EXPECT_TRUE(TSFileSystem::GetDirList(m_tree.Path() / "none").empty());
}

TEST_F(FileListingTest, DirSizeAddsUpModulo4GiB)
{
    EXPECT_EQ(TSFileSystem::GetDirSize(m_tree.Path()), 0U);
    constexpr std::uintmax_t GIB = 1024 * 1024 * 1024;
    for (const char* name : {"a/sparse", "b/c/sparse"})
    {
        fs::resize_file(m_tree.Write(name), GIB * 5 / 2);
    }
    m_tree.Write("small", "123");
    EXPECT_EQ(TSFileSystem::GetDirSize(m_tree.Path()), GIB + 3);
    EXPECT_TRUE(LogCapture::Lines().empty());

    EXPECT_EQ(TSFileSystem::GetDirSize(m_tree.Path() / "none"), 0U);
    EXPECT_EQ(LogCapture::Count(qortest::LOG_ERROR, "Error getting dir size, boost error 2"), 1U);
}

TEST_F(FileListingTest, DirSizeThrowsForWhatHasNoSize)
{
    const fs::path dangling = m_tree.Link("dangling", "nowhere");
    EXPECT_THROW(TSFileSystem::GetDirSize(m_tree.Path()), fs::filesystem_error);
    fs::remove(dangling);
    ASSERT_EQ(mkfifo(At("fifo").c_str(), 0600), 0);
    EXPECT_THROW(TSFileSystem::GetDirSize(m_tree.Path()), fs::filesystem_error);
    EXPECT_TRUE(LogCapture::Lines().empty());

    std::vector<fs::path> files;
    EXPECT_TRUE(TSFileSystem::GetFiles(files, m_tree.Path(), ""));
    EXPECT_TRUE(files.empty());
}

TEST_F(FileListingTest, TreeThatChangesMeanwhile)
{
    m_tree.Write("stable.x");
    m_tree.Write("sub/stable.x");
    std::atomic<bool> done(false);
    std::thread writer(
        [&]
        {
            for (int i = 0; !done; ++i)
            {
                const std::string name = "sub/" + std::to_string(i % 50);
                fs::remove_all(m_tree.Path() / name);
                m_tree.Write(name + "/deep/passing.y");
            }
        });
    for (int i = 0; i < 200; ++i)
    {
        const TNames found = Files(".x");
        EXPECT_EQ(found, (TNames{"stable.x", "stable.x"}));
    }
    done = true;
    writer.join();
}

} // namespace
