// Starts programs and times them: to their first sign of life, or by what they say themselves.
#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "Session.h"

extern char** environ;

namespace
{

using namespace qorbench;

// Starts a program, hands its output to the reader, and waits for its end.
template <class TReader>
void Run(const std::vector<std::string>& words, const TReader& readOutput)
{
    std::vector<char*> arguments;
    for (const std::string& word : words)
    {
        arguments.push_back(const_cast<char*>(word.c_str()));
    }
    arguments.push_back(nullptr);

    int ends[2];
    if (pipe(ends) != 0)
    {
        Fail(std::string("pipe: ") + strerror(errno));
    }
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, ends[0]);
    posix_spawn_file_actions_addclose(&actions, ends[1]);
    pid_t child = 0;
    const int error =
        posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
    if (error != 0)
    {
        Fail(words[0] + ": " + strerror(error));
    }
    readOutput(ends[0]);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
    {
        Fail(words[0] + " failed");
    }
}

double TimeToFirstByte(const std::vector<std::string>& program)
{
    double nanoseconds = 0;
    const auto start = std::chrono::steady_clock::now();
    Run(program,
        [&](int output)
        {
            char byte = 0;
            if (read(output, &byte, 1) != 1)
            {
                Fail("no sign of life from " + program[0]);
            }
            nanoseconds =
                std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - start)
                    .count();
        });
    return nanoseconds;
}

// What another process measured and printed.
double ReportedTime(const std::vector<std::string>& program)
{
    std::string text;
    Run(program,
        [&](int output)
        {
            char bytes[64];
            ssize_t got = read(output, bytes, sizeof bytes);
            while (got > 0)
            {
                text.append(bytes, static_cast<std::size_t>(got));
                got = read(output, bytes, sizeof bytes);
            }
        });
    return std::stod(text);
}

int OpenLibrary(const char* library)
{
    const auto start = std::chrono::steady_clock::now();
    if (dlopen(library, RTLD_NOW) == nullptr)
    {
        Fail(dlerror());
    }
    const auto end = std::chrono::steady_clock::now();
    const std::string text =
        std::to_string(std::chrono::duration<double, std::nano>(end - start).count());
    return write(STDOUT_FILENO, text.data(), text.size()) > 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 3 && std::string(argv[1]) == "dlopen")
    {
        return OpenLibrary(argv[2]);
    }
    Session session;
    session.ReplyReady();
    for (std::vector<std::string> words; session.Next(words);)
    {
        const std::size_t count = Number(words, 1);
        const std::vector<std::string> program(words.begin() + 2, words.end());
        std::vector<double> samples;
        for (std::size_t i = 0; i < count; ++i)
        {
            samples.push_back(words[0] == "first-byte" ? TimeToFirstByte(program)
                                                       : ReportedTime(program));
        }
        session.ReplySamples(samples);
    }
    return 0;
}
