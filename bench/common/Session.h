// The talk between a benchmark program and the orchestrator: one command a line on standard input,
// one line of JSON a reply.
#ifndef QORBENCH_SESSION_H
#define QORBENCH_SESSION_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace qorbench
{

class Session
{
public:
    /// Takes standard output for the replies. Whatever the program prints from now on goes to
    /// standard error, so that no library can garble a reply.
    Session();
    ~Session();

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// The next command, split into words; false at the end of the input.
    bool Next(std::vector<std::string>& words);

    void ReplySamples(const std::vector<double>& nanoseconds);
    void ReplyNumber(const std::string& name, double value);
    void ReplyReady();

private:
    void m_Reply(const std::string& line);

    int m_replies;
};

/// A command's numeric word. Ends the program with a message if there is none.
std::size_t Number(const std::vector<std::string>& words, std::size_t index);

[[noreturn]] void Fail(const std::string& message);

/// Ends this process as soon as standard input does: what a server waits for beside its work.
void ExitWithInput();

/// Times each of so many runs of the work; the clock reads stay outside of it.
template <class TWork>
std::vector<double> TimeEach(std::size_t count, const TWork& work)
{
    using TClock = std::chrono::steady_clock;
    std::vector<double> samples;
    samples.reserve(count);
    for (std::size_t i = 0; i < count; ++i)
    {
        const TClock::time_point start = TClock::now();
        work();
        const TClock::time_point end = TClock::now();
        samples.push_back(std::chrono::duration<double, std::nano>(end - start).count());
    }
    return samples;
}

/// Times batches of runs: for work that is too short to be timed alone. A sample is the mean of one
/// batch.
template <class TWork>
std::vector<double> TimeBatches(std::size_t batches, std::size_t perBatch, const TWork& work)
{
    std::vector<double> samples = TimeEach(batches,
                                           [&]
                                           {
                                               for (std::size_t i = 0; i < perBatch; ++i)
                                               {
                                                   work();
                                               }
                                           });
    for (double& sample : samples)
    {
        sample /= static_cast<double>(perBatch);
    }
    return samples;
}

/// Bytes that do not compress to one page.
std::vector<unsigned char> Payload(std::size_t size);

} // namespace qorbench

#endif
