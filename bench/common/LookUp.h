// The job that the cached look-up and its peer are timed at.
#ifndef QORBENCH_LOOKUP_H
#define QORBENCH_LOOKUP_H

#include <string>
#include <thread>
#include <vector>

#include "Session.h"

namespace qorbench
{

constexpr const char* LOOKUP_KEY = "db/bench/value";

/// Obeys the command: lookup THREADS BATCHES PER-BATCH. A sample is what one look-up takes each of
/// the threads, which look up as fast as they can.
///
/// @param lookUp finds the value of LOOKUP_KEY, or returns false
template <class TLookUp>
int RunLookUps(const TLookUp& lookUp)
{
    const auto lookUpOften = [&](std::size_t count)
    {
        std::string value;
        for (; count > 0; --count)
        {
            if (!lookUp(LOOKUP_KEY, value))
            {
                Fail("the setting is missing");
            }
        }
    };
    const auto runThreads = [&](std::size_t threadCount, std::size_t count)
    {
        std::vector<std::thread> threads;
        for (std::size_t i = 0; i < threadCount; ++i)
        {
            threads.emplace_back(lookUpOften, count);
        }
        for (std::thread& thread : threads)
        {
            thread.join();
        }
    };
    Session session;
    const auto time = [&](const std::vector<std::string>& words)
    {
        const std::size_t threads = Number(words, 1), perBatch = Number(words, 3);
        std::vector<double> samples =
            TimeEach(Number(words, 2), [&] { runThreads(threads, perBatch); });
        for (double& sample : samples)
        {
            sample /= static_cast<double>(perBatch);
        }
        session.ReplySamples(samples);
    };
    ObeyAll(session, {{"lookup", time}});
    return 0;
}

} // namespace qorbench

#endif
