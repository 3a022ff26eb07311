// Log sinks, performance markers and assertions.
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <perf_marker.h>

#include <qor/QORDebug.h>

#include "ChildProcess.h"
#include "LogCapture.h"

extern "C" char* __progname;

namespace
{

using namespace qortest;
using qor::TCDebug;

std::vector<std::string>& Markers()
{
    static std::vector<std::string> markers;
    return markers;
}

std::string LogPath(const std::string& name)
{
    return "/tmp/qor_" + name + "_" + std::to_string(getpid()) + ".log";
}

// Gives the process another short name, and removes the log file that goes with it.
class ShortName
{
public:
    explicit ShortName(std::string name, std::string fileName)
        : m_name(std::move(name)), m_path(LogPath(fileName)), m_pBefore(__progname)
    {
        __progname = m_name.data();
    }
    ~ShortName()
    {
        __progname = m_pBefore;
        unlink(m_path.c_str());
        rmdir(m_path.c_str());
    }

    ShortName(const ShortName&) = delete;
    ShortName& operator=(const ShortName&) = delete;

    const std::string& Path() const
    {
        return m_path;
    }

private:
    std::string m_name;
    std::string m_path;
    char* m_pBefore;
};

// A settings object whose file is closed at the end: the library never closes its own.
struct Debug : TCDebug
{
    ~Debug()
    {
        if (m_pLogFile != nullptr)
        {
            fclose(m_pLogFile);
        }
    }
};

template <class TFunction>
std::string StdoutOf(const TFunction& function)
{
    testing::internal::CaptureStdout();
    function();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

TEST(Debug, FreshSettingsPrintOnStandardOutputOnly)
{
    const ShortName name("qorfresh", "qorfresh");
    Debug debug;
    EXPECT_FALSE(debug.m_perfLog);
    const std::string out =
        StdoutOf([&] { debug.External("qor::TCThing", "Do", 12, "value %d", 7); });
    EXPECT_EQ(out, "QOR >qor::TCThing:Do:12< value 7\n");
    EXPECT_NE(access(name.Path().c_str(), F_OK), 0);
}

TEST(Debug, FileIsOpenedOnceAndGoesOnAfterAPause)
{
    const ShortName name("dir/svc", "dir_svc"); // a slash cannot stay in a file's name
    Debug debug;
    debug.EnableStdoutLog(false);
    debug.EnableFileLog(true);
    FILE* const pFile = debug.m_pLogFile;
    ASSERT_NE(pFile, nullptr);
    debug.External("C", "F", 1, "first");
    debug.EnableFileLog(true);
    debug.EnableFileLog(false);
    debug.External("C", "F", 2, "between");
    debug.EnableFileLog(true);
    EXPECT_EQ(debug.m_pLogFile, pFile);
    debug.External("C", "F", 3, "last");
    EXPECT_EQ(ReadFile(name.Path()), "QOR >C:F:1< first\nQOR >C:F:3< last\n"); // flushed already
}

TEST(Debug, FileIsAppendedTo)
{
    const ShortName name("qorappend", "qorappend");
    WriteFile(name.Path(), "older\n");
    Debug debug;
    debug.EnableStdoutLog(false);
    debug.EnableFileLog(true);
    debug.External("C", "F", 1, "newer");
    EXPECT_EQ(ReadFile(name.Path()), "older\nQOR >C:F:1< newer\n");
}

TEST(Debug, FileThatCannotBeOpenedIsReportedAndTriedAgain)
{
    const ShortName name("qorblocked", "qorblocked");
    ASSERT_EQ(mkdir(name.Path().c_str(), 0700), 0);
    LogCapture::Clear();
    Debug debug;
    debug.EnableFileLog(false);
    debug.EnableFileLog(true);
    EXPECT_EQ(debug.m_pLogFile, nullptr);
    EXPECT_TRUE(debug.m_fileLog);
    const std::vector<LogLine> lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].id, 0);
    EXPECT_EQ(lines[0].priority, LOG_INFO);
    EXPECT_EQ(lines[0].tag, "QOR");
    EXPECT_EQ(lines[0].text.find("QORDebug.cpp: EnableFileLog("), 0U);
    EXPECT_NE(lines[0].text.find(") > Unable to create file " + name.Path() + " - errno " +
                                 std::to_string(EISDIR)),
              std::string::npos);
    EXPECT_EQ(StdoutOf([&] { debug.External("C", "F", 1, "goes on"); }), "QOR >C:F:1< goes on\n");

    ASSERT_EQ(rmdir(name.Path().c_str()), 0);
    debug.EnableFileLog(true);
    EXPECT_NE(debug.m_pLogFile, nullptr);
}

TEST(Debug, LinesAreCutOffAt255Characters)
{
    Debug debug;
    const std::string prefix = "QOR >C:F:1< ";
    for (const std::size_t length : {std::size_t(242), std::size_t(243), std::size_t(300)})
    {
        const std::string text(length, 'x');
        const std::string out = StdoutOf([&] { debug.External("C", "F", 1, "%s", text.c_str()); });
        EXPECT_EQ(out, (prefix + text).substr(0, 255) + "\n") << length;
    }
    const std::string longName(400, 'n');
    EXPECT_EQ(StdoutOf([&] { debug.External(longName.c_str(), "F", 1, "message"); }),
              ("QOR >" + longName).substr(0, 255) + "\n");
}

TEST(Debug, NothingIsWrittenWithBothSinksOff)
{
    const ShortName name("qorsilent", "qorsilent");
    Debug debug;
    debug.EnableFileLog(true);
    debug.EnableFileLog(false);
    debug.EnableStdoutLog(false);
    EXPECT_EQ(StdoutOf([&] { debug.External("C", "F", 1, "quiet"); }), "");
    EXPECT_EQ(ReadFile(name.Path()), "");
}

TEST(Debug, MarkersGoOutWhetherOrNotTheyAreWanted)
{
    Debug debug;
    Markers().clear();
    debug.Perf("C", "F", 1, "one %s", "marker");
    debug.EnablePerfLog(true);
    debug.Perf("C", "F", 2, "%s", std::string(300, 'x').c_str());
    ASSERT_EQ(Markers().size(), 2U);
    EXPECT_EQ(Markers()[0], "QOR >C:F:1< one marker");
    EXPECT_EQ(Markers()[1].size(), 255U);
}

TEST(Debug, AssertReportsTheCallersPlaceToEverySink)
{
    LogCapture::Clear();
    TCDebug& debug = TCDebug::m_instance; // what the log statements look at
    const std::string message = "Error for main file in line 7.";
    const std::string out = StdoutOf([&] { debug.Assert("main", 7); });
    EXPECT_EQ(out.find("QOR >qor::TCDebug:Assert:"), 0U);
    EXPECT_NE(out.find("< " + message + "\n"), std::string::npos);
    std::vector<LogLine> lines = LogCapture::Lines();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].id, 2);
    EXPECT_EQ(lines[0].priority, LOG_ERROR);
    EXPECT_EQ(lines[0].tag, "QOR");
    EXPECT_EQ(lines[0].text.find("QORDebug.cpp: Assert("), 0U);
    EXPECT_NE(lines[0].text.find(") > " + message), std::string::npos);

    debug.EnableStdoutLog(false);
    debug.EnableFileLog(false);
    EXPECT_EQ(StdoutOf([&] { debug.Assert("main", 7); }), "");
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, message), 2U); // the platform log always
    debug.EnableStdoutLog(true);
    debug.EnableFileLog(true);
    if (debug.m_pLogFile != nullptr)
    {
        unlink(LogPath(__progname).c_str());
    }
}

} // namespace

// Ahead of the platform library's.
void perf_marker(const char* text, size_t length)
{
    Markers().emplace_back(text, length);
}
