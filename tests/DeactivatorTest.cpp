// The teardown: what is registered for it, its order, and that the library really unloads.
#include <algorithm>
#include <string>
#include <vector>

#include <boost/algorithm/string.hpp>

#include "BusTest.h"

namespace
{

using namespace qortest;
using Lines = std::vector<std::string>;

class Teardown : public BusTest
{
protected:
    Teardown()
    {
        EXPECT_TRUE(m_service.OwnName(SERVICE_NAME));
        m_service.AnswerUsing(
            [this](const IncomingCall& call)
            {
                m_service.Post(call.sender, SERVICE_PATH, "Send", Request(2, false));
                return Answer{Answer::REPLY, {0}, ""};
            });
    }

    // What a child prints; the lines of the library's own log start with "QOR >".
    static Lines Run(const std::string& end, const std::string& use)
    {
        ChildProcess::Options options;
        // The holders that outlive the teardown are never freed, so a leak of the unloaded library.
        options.environment["ASAN_OPTIONS"] = "detect_leaks=0";
        ChildProcess child({UNLOAD_CHILD, QOR_TEST_LIBRARY, end, use}, options);
        EXPECT_EQ(child.Wait(), 0) << child.Out() << child.Err();
        Lines lines;
        const std::string out = child.Out();
        return boost::split(lines, out, boost::is_any_of("\n"));
    }

    static void ExpectTheTeardown(const Lines& all, const Lines& before, const Lines& after)
    {
        // In this order, among others: the user once, then each function once, by address.
        Lines expected{"QOR >qor::TCDbus:", "QOR >qor::TCDbusClient:", "events 1",
                       "QOR >qor::TCDeactivator:", "policy -1"};
        expected.insert(expected.end(), before.begin(), before.end());
        expected.insert(expected.end(), {"user", "destroyed 1", "again 0"});
        EXPECT_EQ(std::count(all.begin(), all.end(), "the other one waits 0"), 0);
        Lines functions;
        std::copy_if(all.begin(), all.end(), std::back_inserter(functions),
                     [](const std::string& line) { return line.rfind("function ", 0) == 0; });
        ASSERT_EQ(functions.size(), 4U);
        EXPECT_NE(functions.back().find(" /opt/usr/share/vantorix/velkin_qor_policy.xml"),
                  std::string::npos); // the policy paths go last
        EXPECT_TRUE(std::is_sorted(functions.begin(), functions.end()));
        for (const std::string& function : functions)
        {
            expected.insert(expected.end(), {function, "- already destroyed"});
        }
        expected.insert(expected.end(), after.begin(), after.end());
        auto at = all.begin();
        for (const std::string& line : expected)
        {
            at = std::find_if(at, all.end(),
                              [&](auto& one) { return one.find(line) != std::string::npos; });
            ASSERT_NE(at, all.end()) << line << " is not in\n" << boost::join(all, "\n");
            ++at;
        }
        EXPECT_EQ(std::count(all.begin(), all.end(), "user"), 1);
        EXPECT_EQ(std::count(all.begin(), all.end(), "a result"), 0); // with the endpoint
    }

    RawPeer m_service;
};

TEST_F(Teardown, UnusedLibraryIsUnmapped)
{
    EXPECT_EQ(Run("unload", "idle"), (Lines{"loaded 1", "still loaded 0", "end", ""}));
}

TEST_F(Teardown, RunsBeforeAUsedLibraryIsUnmapped)
{
    ExpectTheTeardown(Run("unload", "use"), {"user refused 0, registered 1", "loaded 1"},
                      {"still loaded 0", "end"});
    EXPECT_TRUE(m_service.WaitForCalls("Send", 2)); // both policies did go out
}

TEST_F(Teardown, RunsAtExitToo)
{
    ExpectTheTeardown(Run("exit", "use"), {"loaded 1", "end"}, {});
}

} // namespace
