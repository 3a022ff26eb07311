// Log sinks, performance markers and assertions; payloads between byte arrays and archives.
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include <boost/archive/archive_exception.hpp>
#include <boost/archive/binary_iarchive.hpp>

#include <gtest/gtest.h>

#include <perf_marker.h>

#include <qor/QORDeactivator.h>
#include <qor/QORDebug.h>
#include <qor/QORIpcSerializationUtil.h>

#include "ChildProcess.h"
#include "LogCapture.h"

extern "C" char* __progname;

namespace
{

using namespace qortest;
using qor::TCIpcSerializationUtil;

std::vector<std::string> g_markers;

template <class TFunction>
std::string StdoutOf(const TFunction& function)
{
    testing::internal::CaptureStdout();
    function();
    fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

// Gives the process another short name: a slash cannot stay in a file's name.
class Debug : public testing::Test
{
protected:
    Debug()
    {
        LogCapture::Clear();
        __progname = m_name.data();
    }

    ~Debug() override
    {
        __progname = m_pBefore;
        if (m_debug.m_pLogFile != nullptr)
        {
            fclose(m_debug.m_pLogFile); // the library never closes its own
        }
        unlink(Path().c_str());
    }

    qor::TCDebug m_debug;
    std::string m_name = "dir/svc";
    static std::string Path() // of this process, which may be a child
    {
        return "/tmp/qor_dir_svc_" + std::to_string(getpid()) + ".log";
    }
    char* const m_pBefore = __progname;
};

TEST_F(Debug, FreshSettingsPrintOnStandardOutputAndTheFileIsAppendedTo)
{
    EXPECT_FALSE(m_debug.m_perfLog);
    EXPECT_EQ(StdoutOf([&] { m_debug.External("qor::TCThing", "Do", 12, "value %d", 7); }),
              "QOR >qor::TCThing:Do:12< value 7\n");
    EXPECT_NE(access(Path().c_str(), F_OK), 0);

    setenv("QOR_STDOUT", "0", 1);
    EXPECT_FALSE(qor::TCDebug().m_stdoutLog);
    unsetenv("QOR_STDOUT");
    WriteFile(Path(), "older\n");
    m_debug.EnableStdoutLog(false);
    m_debug.EnableFileLog(true);
    m_debug.External("C", "F", 1, "first");
    const FILE* const pOpen = m_debug.m_pLogFile;
    m_debug.EnableFileLog(true);
    EXPECT_EQ(m_debug.m_pLogFile, pOpen);
    m_debug.EnableFileLog(false);
    EXPECT_EQ(StdoutOf([&] { m_debug.External("C", "F", 2, "between"); }), "");
    m_debug.EnableFileLog(true);
    m_debug.External("C", "F", 3, "last"); // flushed
    EXPECT_EQ(ReadFile(Path()), "older\nQOR >C:F:1< first\nQOR >C:F:3< last\n");
}

TEST_F(Debug, OnlyARegularFileOfThisUserBecomesTheLogFile)
{
    const TemporaryDirectory directory;
    const std::string victim = directory.Path("victim"), trap = Path();
    const std::function<int()> traps[] = {[&] { return symlink(victim.c_str(), trap.c_str()); },
                                          [&] { return link(victim.c_str(), trap.c_str()); },
                                          [&] { return mkfifo(trap.c_str(), 0600); },
                                          [&] { return symlink("/nowhere", trap.c_str()); }};
    for (const auto& set : traps)
    {
        WriteFile(victim, "untouched");
        ASSERT_EQ(set(), 0);
        LogCapture::Clear();
        m_debug.EnableFileLog(true);
        m_debug.External("C", "F", 1, "lost");
        EXPECT_EQ(m_debug.m_pLogFile, nullptr);
        EXPECT_TRUE(m_debug.m_fileLog);
        EXPECT_EQ(LogCapture::Count(LOG_INFO, "Unable to create file " + trap + " - errno "), 1U);
        EXPECT_EQ(LogCapture::Lines().at(0).id, 0);
        EXPECT_EQ(ReadFile(victim), "untouched");
        unlink(trap.c_str());
    }
    WriteFile(trap, "");
    if (chown(trap.c_str(), 12345, 12345) == 0) // for root only
    {
        m_debug.EnableFileLog(true);
        EXPECT_EQ(m_debug.m_pLogFile, nullptr);
        unlink(trap.c_str());
    }
    m_debug.EnableFileLog(true);
    ASSERT_NE(m_debug.m_pLogFile, nullptr);
    EXPECT_EQ(fcntl(fileno(m_debug.m_pLogFile), F_GETFD), FD_CLOEXEC);
}

static int g_signals;

// Few lines leave standard output at the end of the process only.
TEST_F(Debug, HostGetsNoSignalForALineAndKeepsItsOwn)
{
    const auto host = [&](int signal, bool isMany)
    {
        int ends[2];
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = 1000;
        std::signal(signal, [](int) { ++g_signals; });
        m_debug.EnableFileLog(true);
        const bool isReady = pipe(ends) == 0 && close(ends[0]) == 0 && dup2(ends[1], 1) == 1 &&
                             setrlimit(RLIMIT_FSIZE, &limit) == 0;
        const auto print = [&] { m_debug.External("C", "F", 1, "%0200d", 7); };
        print();
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signal);
        for (int i = 0; isMany && i < 200; ++i)
        {
            raise(i % 50 == 49 && sigprocmask(SIG_BLOCK, &set, nullptr) == 0 ? signal : 0);
            print();
            sigprocmask(SIG_UNBLOCK, &set, nullptr);
        }
        std::signal(signal, SIG_DFL);
        qor::TCDeactivator::RegisterDBUS([] { qor::TCDebug::m_instance.Assert("late", 1); });
        unlink(Path().c_str());
        std::exit(isReady ? g_signals : 99);
    };
    for (const int signal : {SIGPIPE, SIGXFSZ})
    {
        fflush(stdout); // what is not ours keeps its signal
        EXPECT_EXIT(host(signal, false), testing::ExitedWithCode(0), "");
        EXPECT_EXIT(host(signal, true), testing::ExitedWithCode(4), "");
    }
}

TEST_F(Debug, HostKeepsTheSignalForWhatItHasPrintedItself)
{
    const auto host = [&](bool isFirst)
    {
        int ends[2];
        const bool isReady = pipe(ends) == 0 && close(ends[0]) == 0 && dup2(ends[1], 1) == 1 &&
                             setvbuf(stdout, nullptr, _IOFBF, BUFSIZ) == 0;
        for (const bool isOfHost : {isFirst, !isFirst})
        {
            if (isOfHost)
            {
                printf("of the host");
            }
            else
            {
                m_debug.External("C", "F", 1, "of the library");
            }
        }
        std::exit(isReady ? 0 : 99);
    };
    for (const bool isFirst : {true, false})
    {
        fflush(stdout);
        EXPECT_EXIT(host(isFirst), testing::KilledBySignal(SIGPIPE), "") << isFirst;
    }
}

TEST_F(Debug, LinesAndMarkersAreCutOffAt255Characters)
{
    for (const std::size_t length : {242U, 243U, 244U, 300U})
    {
        const std::string text(length, 'x');
        const std::string expected = ("QOR >C:F:1< " + text).substr(0, 255);
        const auto print = [&] { m_debug.External("C", "F", 1, "%s", text.c_str()); };
        EXPECT_EQ(StdoutOf(print), expected + "\n");
        g_markers.clear();
        m_debug.Perf("C", "F", 1, "%s", text.c_str()); // whether or not it is wanted
        EXPECT_EQ(g_markers, std::vector<std::string>{expected});
    }
    const std::string name(400, 'n');
    EXPECT_EQ(StdoutOf([&] { m_debug.External(name.c_str(), "F", 1, "x"); }),
              "QOR >" + name.substr(0, 250) + "\n");
}

TEST_F(Debug, AssertReportsTheCallersPlaceToEverySink)
{
    qor::TCDebug& debug = qor::TCDebug::m_instance; // what the log statements look at
    const std::string message = "Error for main file in line 7.";
    const std::string out = StdoutOf([&] { debug.Assert("main", 7); });
    EXPECT_EQ(out.find("QOR >qor::TCDebug:Assert:"), 0U);
    EXPECT_NE(out.find("< " + message + "\n"), std::string::npos);
    EXPECT_EQ(LogCapture::Lines().at(0).id, 2);
    debug.EnableStdoutLog(false);
    EXPECT_EQ(StdoutOf([&] { debug.Assert("main", 7); }), "");
    debug.EnableStdoutLog(true);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, message), 2U); // the platform log always
}

TEST(Serialization, EmptyInputIsReportedAndChangesNothing)
{
    LogCapture::Clear();
    std::stringstream stream;
    TCIpcSerializationUtil::ConvertData(std::vector<unsigned char>(), stream);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "QORIpcSerializationUtil.cpp file in line "), 1U);
    EXPECT_THROW(boost::archive::binary_iarchive archive(stream),
                 boost::archive::archive_exception);
    std::vector<unsigned char> data{1, 2};
    TCIpcSerializationUtil::ConvertData(stream, data);
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "QORIpcSerializationUtil.cpp file in line "), 2U);
    EXPECT_EQ(data, (std::vector<unsigned char>{1, 2}));
}

} // namespace

// Ahead of the platform library's.
void perf_marker(const char* text, size_t length)
{
    g_markers.emplace_back(text, length);
}
