// Sends to a raw peer, and the results that they are told.
#ifndef QORTEST_SENDSFIXTURE_H
#define QORTEST_SENDSFIXTURE_H

#include <memory>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

#include <qor/IDbusClient.h>

#include "EndpointFixture.h"

namespace qortest
{

/// The results of asynchronous sends, and the threads that told them.
class Results
{
public:
    qor::TSendCallback Taker()
    {
        return [state = m_state](const qor::TSSendResult& result)
        {
            const std::lock_guard<std::mutex> lock(state->mutex);
            state->told.emplace_back(result, std::this_thread::get_id());
        };
    }

    std::vector<std::pair<qor::TSSendResult, std::thread::id>> All() const
    {
        const std::lock_guard<std::mutex> lock(m_state->mutex);
        return m_state->told;
    }
    std::size_t Count() const
    {
        return All().size();
    }
    qor::ESendStatus Status(std::size_t index = 0) const
    {
        return All().at(index).first.m_status;
    }
    std::thread::id Thread(std::size_t index = 0) const
    {
        return All().at(index).second;
    }

private:
    struct State
    {
        std::mutex mutex;
        std::vector<std::pair<qor::TSSendResult, std::thread::id>> told;
    };
    std::shared_ptr<State> m_state = std::make_shared<State>();
};

class Sends : public EndpointLife
{
protected:
    static qor::TSSendResult Call(qor::IDbusClient& client, int timeoutMs = WATCHDOG_MS,
                                  const qor::TCCancellation& cancellation = {})
    {
        return client.Call(1, {7}, timeoutMs, cancellation);
    }
    void CallAsync(qor::IDbusClient& client, Results& results, int timeoutMs = WATCHDOG_MS,
                   const qor::TCCancellation& cancellation = {}, GMainContext* pContext = nullptr)
    {
        client.CallAsync(1, {7}, timeoutMs, cancellation, results.Taker(), pContext);
    }
    // Of one asynchronous send, in the default context.
    qor::TSSendResult Outcome(qor::IDbusClient& client, int timeoutMs = WATCHDOG_MS)
    {
        Results results;
        CallAsync(client, results, timeoutMs);
        EXPECT_EQ(results.Count(), 0U); // never from inside the call
        EXPECT_TRUE(PumpUntil([&] { return results.Count() != 0; }));
        PumpUntil([] { return false; }, 20);
        EXPECT_EQ(results.Count(), 1U);
        return results.All().at(0).first;
    }
};

} // namespace qortest

#endif
