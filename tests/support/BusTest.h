// What tests on a bus share.
#ifndef QORTEST_BUSTEST_H
#define QORTEST_BUSTEST_H

#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <future>
#include <string>

#include <gtest/gtest.h>

#include "LogCapture.h"
#include "MainContext.h"
#include "PrivateBus.h"
#include "RawPeer.h"

namespace qortest
{

inline bool Accept(const Bytes&, Bytes&)
{
    return true;
}

/// Every test gets a bus of its own, and must leave no reference to the shared connection behind.
class BusTest : public ::testing::Test
{
protected:
    BusTest()
    {
        alarm(200); // a deadlock ends the program
        LogCapture::Clear();
    }

    ~BusTest() override // after the members of the tests
    {
        EXPECT_TRUE(SharedConnectionIsLetGo()) << "something still holds the shared connection";
        alarm(0);
    }

    /// Iterates the default context until the answer is there.
    template <class T>
    static T Await(std::future<T> future)
    {
        const bool ready = PumpUntil(
            [&] { return future.wait_for(std::chrono::seconds(0)) == std::future_status::ready; });
        EXPECT_TRUE(ready) << "no answer";
        return ready ? future.get() : T();
    }

    static void LeaveTheBus()
    {
        setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/socket", 1);
    }

    PrivateBus m_bus; // before the members of the tests, which live on it
};

/// For what is final in a process: runs the statement in a fresh one, which repeats the test up to
/// here. It must end well, and so must the process: without a failed expectation, a sanitizer's
/// complaint or a crash in its teardown.
#define QORTEST_IN_CHILD(statement)                                                                \
    GTEST_FLAG_SET(death_test_style, "threadsafe");                                                \
    EXPECT_EXIT(                                                                                   \
        {                                                                                          \
            alarm(120); /* a child that hangs fails */                                             \
            statement;                                                                             \
            std::exit(::testing::Test::HasFailure() ? 1 : 0);                                      \
        },                                                                                         \
        ::testing::ExitedWithCode(0), "")

} // namespace qortest

#endif
