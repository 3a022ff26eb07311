// The talk between a benchmark program and the orchestrator: one command a line on standard input,
// one line of JSON a reply.
#ifndef QORBENCH_SESSION_H
#define QORBENCH_SESSION_H

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
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

/// What a program does on a command, given its words.
using TCommands = std::map<std::string, std::function<void(const std::vector<std::string>&)>>;

/// Does one command, whose name is the first word; ends the program with a message if it has none
/// of that name.
void Obey(const TCommands& commands, const std::vector<std::string>& words);

/// Says that the program is ready, and does commands until the input ends.
void ObeyAll(Session& session, const TCommands& commands);

/// The client of the round-trip contest: on each command, times calls with a request of that size.
int TimeRoundTrips(Session& session,
                   const std::function<void(const std::vector<unsigned char>&)>& call);

/// What a program does in a role, given the bus name or path that comes after it.
using TRoles = std::map<std::string, int (*)(const char*)>;

/// Plays the role that the arguments name; ends the program with a message if it has none.
int PlayRole(int argc, char** argv, const TRoles& roles);

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
