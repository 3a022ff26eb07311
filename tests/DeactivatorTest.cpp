// The teardown: what is registered for it, its order, and that the library really unloads.
#include <algorithm>
#include <string>
#include <vector>

#include <boost/algorithm/string.hpp>

#include <qor/QORDeactivator.h>

#include "BusTest.h"

namespace
{

using namespace qortest;
using qor::TCDeactivator;

struct User : qor::TIDestroyCallback
{
    void OnDestroy() override {}
};

void Nothing() {}

TEST(Deactivator, FunctionIsHeldOnce)
{
    LogCapture::Clear();
    TCDeactivator::RegisterDBUS(&Nothing);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Register a new DBUS callback"), 1U);
    TCDeactivator::RegisterDBUS(&Nothing);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "Register a new DBUS callback"), 1U);
    EXPECT_EQ(LogCapture::Count(LOG_DEBUG, "DBUS callback already registered"), 1U);
}

TEST(Deactivator, FirstUserStaysUntilAnyIsUnregistered)
{
    static User first;
    static User second;
    LogCapture::Clear();
    EXPECT_TRUE(TCDeactivator::RegisterUser(first));
    EXPECT_FALSE(TCDeactivator::RegisterUser(second));
    EXPECT_FALSE(TCDeactivator::RegisterUser(first));
    EXPECT_EQ(LogCapture::Count(LOG_ERROR, "Unable to register user callback - destroyed 0"), 2U);
    TCDeactivator::UnregisterUser(second);
    EXPECT_TRUE(TCDeactivator::RegisterUser(second));
    TCDeactivator::UnregisterUser(first);
}

class Unload : public BusTest
{
protected:
    Unload()
    {
        EXPECT_TRUE(m_service.OwnName(SERVICE_NAME));
        m_service.AnswerWith({Answer::REPLY, {0}, ""});
    }

    // The lines of a child that does so; those of the library's own log start with "QOR >".
    std::vector<std::string> Run(const std::vector<std::string>& arguments)
    {
        std::vector<std::string> command{OwnDirectory() + "/qor-unload-child", QOR_TEST_LIBRARY};
        command.insert(command.end(), arguments.begin(), arguments.end());
        ChildProcess::Options options;
        // The holders that outlive the teardown are never freed, so a leak of the unloaded library.
        options.environment["ASAN_OPTIONS"] = "detect_leaks=0";
        ChildProcess child(command, options);
        EXPECT_EQ(child.Wait(), 0) << child.Out() << child.Err();
        const std::string out = boost::trim_right_copy(child.Out());
        std::vector<std::string> lines;
        boost::split(lines, out, boost::is_any_of("\n"));
        return lines;
    }

    static std::ptrdiff_t Position(const std::vector<std::string>& lines, const std::string& part)
    {
        const auto found = std::find_if(lines.begin(), lines.end(),
                                        [&](const std::string& line)
                                        { return line.find(part) != std::string::npos; });
        EXPECT_NE(found, lines.end()) << part << " is not in\n" << boost::join(lines, "\n");
        return found - lines.begin();
    }

    static void ExpectTheTeardown(const std::vector<std::string>& lines)
    {
        std::vector<std::string> functions;
        std::copy_if(lines.begin(), lines.end(), std::back_inserter(functions),
                     [](const std::string& line) { return line.find("function ") == 0; });
        EXPECT_EQ(functions.size(), 4U); // each once
        EXPECT_TRUE(std::is_sorted(functions.begin(), functions.end()));
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "user"), 1);
        EXPECT_LT(Position(lines, "user registered 1"), Position(lines, "again 0"));
        EXPECT_LT(Position(lines, "again 0"), Position(lines, "function "));
        EXPECT_LT(Position(lines, "Unable to register user callback - destroyed 1"),
                  Position(lines, "function "));
        EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                                [](const std::string& line)
                                { return line.find("- already destroyed") != std::string::npos; }),
                  4);
    }

    RawPeer m_service;
};

TEST_F(Unload, UnusedLibraryIsUnmapped)
{
    EXPECT_EQ(Run({"unload"}), (std::vector<std::string>{"loaded 1", "still loaded 0", "end"}));
}

TEST_F(Unload, UsedLibraryIsUnmappedAfterItsTeardown)
{
    const std::vector<std::string> lines = Run({"unload", "policy", "events", "register"});
    Position(lines, "policy -1");
    EXPECT_EQ(m_service.Count("Send"), 1U); // it did go out
    Position(lines, "events 1");
    ExpectTheTeardown(lines);
    EXPECT_LT(Position(lines, "function "), Position(lines, "still loaded 0"));
}

TEST_F(Unload, TeardownRunsAtExitToo)
{
    const std::vector<std::string> lines = Run({"exit", "policy", "register"});
    ExpectTheTeardown(lines);
    EXPECT_LT(Position(lines, "end"), Position(lines, "again 0"));
}

} // namespace
