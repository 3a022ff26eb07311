// A bus, and a client on it that is none of our endpoints.
#ifndef QORTEST_FAULTFIXTURE_H
#define QORTEST_FAULTFIXTURE_H

#include <csignal>

#include "FaultSupport.h"
#include "ToolRunner.h"

namespace qortest
{

class Fault : public ToolTest
{
protected:
    void ExpectResult(int result, const std::string& policy)
    {
        EXPECT_EQ(SendPolicy(m_client, policy), result) << policy.substr(0, 40);
    }

    static void EndCleanly(ChildProcess& process)
    {
        process.Signal(SIGTERM);
        EXPECT_EQ(process.Wait(), 0) << process.Err();
    }

    RawPeer m_client;
};

} // namespace qortest

#endif
