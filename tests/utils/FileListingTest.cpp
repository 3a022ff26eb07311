// Walks and listings of real trees.
#include <algorithm>
#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include <qor/QORFileSystem.h>

#include "Logged.h"
#include "SystemCalls.h"
#include "TemporaryDirectory.h"

namespace fs = boost::filesystem;
using qor::TSFileSystem;
using qortest::statusQueries;
using qortest::systemCalls;
using qortest::TLines;

namespace
{

class FileListingTest : public testing::Test, protected qortest::TemporaryDirectory
{
protected:
    FileListingTest()
    {
        systemCalls = qortest::SystemCalls();
        Logged();
    }

    static TLines Logged()
    {
        return qortest::Logged("QORFileSystem.cpp");
    }

    // The names of GetFiles in a fixed order; its result comes last.
    TLines Files(const std::string& extension) const
    {
        std::vector<fs::path> files;
        const bool result = TSFileSystem::GetFiles(files, At(""), extension);
        TLines names = Sorted(files);
        names.push_back(result ? "true" : "false");
        return names;
    }

    template <class TPaths>
    static TLines Sorted(const TPaths& paths)
    {
        TLines names;
        for (const fs::path& path : paths)
        {
            names.push_back(path.string());
        }
        std::sort(names.begin(), names.end());
        return names;
    }
};

TEST_F(FileListingTest, FilesAreSelectedByTheirExactExtension)
{
    for (const char* name : {"a/x.xml", "a/b/x.xml", "top.XML", "two.dots.xml", ".xml", "xml",
                             "dot.", "d.xml/plain", "b/x.xml.bak", "top.bak", "a/b/deep.bak"})
    {
        Write(name);
    }
    EXPECT_EQ(Files(".xml"), (TLines{".xml", "two.dots.xml", "x.xml", "x.xml", "true"}));
    EXPECT_EQ(Files("xml"), TLines{"true"});
    EXPECT_EQ(Files(""), (TLines{"plain", "xml", "true"}));
    EXPECT_EQ(Files("."), (TLines{"dot.", "true"}));

    std::vector<fs::path> files = {"kept"}; // and the upper directories come first
    EXPECT_TRUE(TSFileSystem::GetFiles(files, At(""), ".bak"));
    EXPECT_FALSE(TSFileSystem::GetFiles(files, At("none"), ".bak"));
    EXPECT_EQ(files, (std::vector<fs::path>{"kept", "top.bak", "x.xml.bak", "deep.bak"}));
    EXPECT_EQ(Logged(), TLines());
}

TEST_F(FileListingTest, NamesAreBytes)
{
    for (const char* name : {"new\nline.txt", "sp ace.txt", "\xff\xfe.txt"})
    {
        Write(std::string("sub \xfd/") + name, "123");
    }
    EXPECT_EQ(Files(".txt"), (TLines{"new\nline.txt", "sp ace.txt", "\xff\xfe.txt", "true"}));
    EXPECT_EQ(TSFileSystem::GetDirSize(At("")), 9U);
    EXPECT_EQ(Sorted(TSFileSystem::GetDirList(At(""))), TLines{At("sub \xfd")});
}

TEST_F(FileListingTest, LinksAreFollowedButNoDirectoryIsVisitedTwice)
{
    const qortest::TemporaryDirectory outside;
    outside.Write("far.x", "1");
    Write("real/file.x", "12345");
    Link("real/up", "..");
    Link("real/self", ".");
    Link("alias", "real");
    Link("alias.x", "real/file.x");
    Link("outside", outside.At(""));
    EXPECT_EQ(Files(".x"), (TLines{"alias.x", "far.x", "file.x", "true"}));
    EXPECT_EQ(TSFileSystem::GetDirSize(At("")), 11U);
}

// A link that leads nowhere fails its query without an exception, and what comes later clears that;
// one that leads to itself has no status at all.
TEST_F(FileListingTest, OnlyTheLatestErrorOfAWalkCounts)
{
    Link("dangling", "nowhere");
    EXPECT_EQ(Files(""), TLines{"false"});
    for (int i = 0; i < 10; ++i)
    {
        Write("later" + std::to_string(i) + ".x");
    }
    std::string last;
    for (const auto& entry : fs::directory_iterator(At("")))
    {
        last = entry.path().filename().string();
    }
    EXPECT_EQ(Files(""), TLines{last == "dangling" ? "false" : "true"});
    MakeDirectory("sub");
    EXPECT_EQ(Files(""), TLines{"true"});
    EXPECT_TRUE(TSFileSystem::GetFileList(At(""), ".y", "").empty());
    EXPECT_THROW(TSFileSystem::GetDirSize(At("")), fs::filesystem_error);

    Link("loop", "loop");
    EXPECT_THROW(Files(""), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetFileList(At(""), "", ""), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirList(At("")), fs::filesystem_error);
}

// Its entries have types, but no status that could be read.
TEST_F(FileListingTest, DirectoryWithoutSearchPermissionIsNoShortcut)
{
    if (geteuid() == 0)
    {
        GTEST_SKIP() << "permissions do not bind root";
    }
    Write("closed/file.x");
    fs::permissions(At("closed"), fs::owner_read);
    EXPECT_THROW(Files(".x"), fs::filesystem_error);
    EXPECT_THROW(TSFileSystem::GetDirSize(At("")), fs::filesystem_error);
    fs::permissions(At("closed"), fs::no_perms);
    EXPECT_EQ(Files(".x"), TLines{"false"});
    EXPECT_EQ(TSFileSystem::GetDirSize(At("")), 0U);
    EXPECT_EQ(Logged(), TLines{"E Error getting dir size, boost error 13"});
    fs::permissions(At("closed"), fs::owner_all);
}

TEST_F(FileListingTest, ReadErrorInADirectory)
{
    Write("one");
    Write("two");
    systemCalls.failingRead = 4; // "." and "..", then one file is seen
    EXPECT_THROW(Files(""), fs::filesystem_error);
    systemCalls.failingRead = 4;
    EXPECT_THROW(TSFileSystem::GetFileList(At(""), "", ""), fs::filesystem_error);
    systemCalls.failingRead = 4;
    EXPECT_EQ(TSFileSystem::GetDirSize(At("")), 20971520U);
    EXPECT_EQ(Logged().at(0).find("E Error getting dir size, boost error qor::"), 0U);

    // A directory that gives no entry at all has not been opened.
    systemCalls.failingRead = 1;
    EXPECT_EQ(Files(""), TLines{"false"});
    systemCalls.failingRead = 1;
    EXPECT_TRUE(TSFileSystem::GetFileList(At(""), "", "").empty());
    systemCalls.failingRead = 1;
    EXPECT_EQ(TSFileSystem::GetDirSize(At("")), 0U);
    EXPECT_EQ(Logged(), TLines{"E Error getting dir size, boost error 5"});
}

TEST_F(FileListingTest, FewStatusQueriesForManyFiles)
{
    for (int i = 0; i < 100; ++i)
    {
        Write("sub/" + std::to_string(i) + ".x");
    }
    DIR* pDirectory = opendir(At("").c_str());
    const bool typesTold = readdir(pDirectory)->d_type != DT_UNKNOWN;
    closedir(pDirectory);
    if (!typesTold)
    {
        GTEST_SKIP() << "this file system does not tell types in its directories";
    }
    statusQueries = 0;
    EXPECT_EQ(Files(".x").size(), 101U);
    EXPECT_LE(statusQueries, 2); // one for each directory
    statusQueries = 0;
    EXPECT_EQ(TSFileSystem::GetDirSize(At("")), 100U);
    EXPECT_LE(statusQueries, 103);
}

TEST_F(FileListingTest, FileListSelectsByExtensionAndText)
{
    const std::string one = Write("one.log");
    const std::string two = Write("two.txt");
    const std::string link = Link("link.log", "one.log");
    Write("sub.log/three.log");
    const auto list = [this](const char* extension, const std::string& text)
    { return Sorted(TSFileSystem::GetFileList(At(""), extension, text)); };
    EXPECT_EQ(list("", ""), (TLines{link, one, two}));
    EXPECT_EQ(list(".log", ""), (TLines{link, one}));
    EXPECT_EQ(list("", At("")), list("", "")); // the directory's own path counts
    EXPECT_EQ(list("", "/two"), TLines{two});
    EXPECT_EQ(list(".log", "/two"), TLines());
    EXPECT_TRUE(TSFileSystem::GetFileList(At("none"), "", "").empty());
    EXPECT_EQ(Logged(), TLines());
}

TEST_F(FileListingTest, DirListIsOrderedAndLogged)
{
    MakeDirectory("b/inner");
    const std::set<fs::path> expected = {MakeDirectory("a"), At("b"), Link("c", "a")};
    Write("file");
    EXPECT_EQ(TSFileSystem::GetDirList(At("")), expected);
    TLines lines = Logged();
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines,
              (TLines{"D Add " + At("a") + " dir to list", "D Add " + At("b") + " dir to list",
                      "D Add " + At("c") + " dir to list"}));
    EXPECT_TRUE(TSFileSystem::GetDirList(At("none")).empty());
}

TEST_F(FileListingTest, DirSizeAddsUpModulo4GiB)
{
    EXPECT_EQ(TSFileSystem::GetDirSize(At("")), 0U);
    constexpr std::uintmax_t GIB = 1024 * 1024 * 1024;
    fs::resize_file(Write("a/sparse"), GIB * 5 / 2);
    fs::resize_file(Write("b/c/sparse"), GIB * 5 / 2);
    Write("small", "123");
    EXPECT_EQ(TSFileSystem::GetDirSize(At("")), GIB + 3);
    EXPECT_EQ(Logged(), TLines());
    EXPECT_EQ(TSFileSystem::GetDirSize(At("none")), 0U);
    EXPECT_EQ(Logged(), TLines{"E Error getting dir size, boost error 2"});
    ASSERT_EQ(mkfifo(At("fifo").c_str(), 0600), 0); // which has no size
    EXPECT_THROW(TSFileSystem::GetDirSize(At("")), fs::filesystem_error);
    EXPECT_EQ(Files(""), (TLines{"small", "sparse", "sparse", "true"}));
}

TEST_F(FileListingTest, TreeThatChangesMeanwhile)
{
    Write("stable.x");
    Write("sub/stable.x");
    std::atomic<bool> done(false);
    std::thread writer(
        [&]
        {
            for (int i = 0; !done; ++i)
            {
                const std::string name = "sub/" + std::to_string(i % 50);
                fs::remove_all(At(name));
                Write(name + "/deep/passing.y");
            }
        });
    for (int i = 0; i < 200; ++i)
    {
        TLines found = Files(".x");
        found.pop_back(); // a directory that has gone may be the latest error
        EXPECT_EQ(found, (TLines{"stable.x", "stable.x"}));
    }
    done = true;
    writer.join();
}

} // namespace
