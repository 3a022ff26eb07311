// The jobs that the utilities and their peers are timed at.
#include "UtilityJobs.h"

#include <thread>
#include <vector>

#include "Session.h"

namespace qorbench
{

namespace
{

// A sample is what one look-up takes each of the threads, which look up as fast as they can.
std::vector<double> TimeLookUps(const UtilityJobs& jobs, std::size_t threadCount,
                                std::size_t batches, std::size_t perBatch)
{
    std::vector<double> samples =
        TimeEach(batches,
                 [&]
                 {
                     std::vector<std::thread> threads;
                     for (std::size_t i = 0; i < threadCount; ++i)
                     {
                         threads.emplace_back(
                             [&]
                             {
                                 for (std::size_t done = 0; done < perBatch; ++done)
                                 {
                                     jobs.m_lookUp();
                                 }
                             });
                     }
                     for (std::thread& thread : threads)
                     {
                         thread.join();
                     }
                 });
    for (double& sample : samples)
    {
        sample /= static_cast<double>(perBatch);
    }
    return samples;
}

} // namespace

int RunUtilityJobs(const UtilityJobs& jobs)
{
    Session session;
    session.ReplyReady();
    for (std::vector<std::string> words; session.Next(words);)
    {
        if (words.at(0) == "lookup")
        {
            session.ReplySamples(
                TimeLookUps(jobs, Number(words, 1), Number(words, 2), Number(words, 3)));
            continue;
        }
        const auto& job = words.at(0) == "files" ? jobs.m_countXmlFiles : jobs.m_treeSize;
        const std::size_t expected = Number(words, 3);
        session.ReplySamples(TimeEach(Number(words, 2),
                                      [&]
                                      {
                                          if (job(words.at(1)) != expected)
                                          {
                                              Fail("a wrong result for " + words[0]);
                                          }
                                      }));
    }
    return 0;
}

} // namespace qorbench
