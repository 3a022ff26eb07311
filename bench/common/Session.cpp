// The talk between a benchmark program and the orchestrator.
#include "Session.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <sstream>
#include <thread>

#include "Channel.h"

namespace qorbench
{

Session::Session() : m_replies(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 3))
{
    if (m_replies < 0 || dup2(STDERR_FILENO, STDOUT_FILENO) < 0)
    {
        Fail(std::string("standard output: ") + strerror(errno));
    }
}

Session::~Session()
{
    close(m_replies);
}

bool Session::Next(std::vector<std::string>& words)
{
    std::string line;
    if (!std::getline(std::cin, line))
    {
        return false;
    }
    std::istringstream stream(line);
    words.clear();
    for (std::string word; stream >> word;)
    {
        words.push_back(word);
    }
    return true;
}

void Session::ReplySamples(const std::vector<double>& nanoseconds)
{
    std::ostringstream line;
    line << "{\"samples\": [";
    const char* separator = "";
    for (const double sample : nanoseconds)
    {
        line << separator << sample;
        separator = ", ";
    }
    line << "]}";
    m_Reply(line.str());
}

void Session::ReplyNumber(const std::string& name, double value)
{
    std::ostringstream line;
    line.precision(15);
    line << "{\"" << name << "\": " << value << "}";
    m_Reply(line.str());
}

void Session::ReplyReady()
{
    m_Reply("{\"ready\": true}");
}

void Session::m_Reply(const std::string& line)
{
    const std::string text = line + "\n";
    for (std::size_t done = 0; done < text.size();)
    {
        const ssize_t written = write(m_replies, text.data() + done, text.size() - done);
        if (written < 0)
        {
            Fail(std::string("reply: ") + strerror(errno));
        }
        done += static_cast<std::size_t>(written);
    }
}

void Obey(const TCommands& commands, const std::vector<std::string>& words)
{
    const auto found = commands.find(words.at(0));
    if (found == commands.end())
    {
        Fail("unknown command " + words[0]);
    }
    found->second(words);
}

void ObeyAll(Session& session, const TCommands& commands)
{
    session.ReplyReady();
    for (std::vector<std::string> words; session.Next(words);)
    {
        Obey(commands, words);
    }
}

int TimeRoundTrips(Session& session,
                   const std::function<void(const std::vector<unsigned char>&)>& call)
{
    ObeyAll(session, {{"call", [&](const std::vector<std::string>& words)
                       {
                           const auto request = Payload(REQUEST_HEADER_SIZE + Number(words, 1));
                           session.ReplySamples(TimeEach(Number(words, 2), [&] { call(request); }));
                       }}});
    return 0;
}

int PlayRole(int argc, char** argv, const TRoles& roles)
{
    const auto found = roles.find(argc > 1 ? argv[1] : "");
    if (found == roles.end() || argc < 3)
    {
        std::string usage = "usage: ROLE PLACE, with one of the roles";
        for (const auto& [name, function] : roles)
        {
            usage += ' ' + name;
        }
        Fail(usage);
    }
    return found->second(argv[2]);
}

std::size_t Number(const std::vector<std::string>& words, std::size_t index)
{
    if (index >= words.size())
    {
        Fail("a number is missing in the command");
    }
    char* end = nullptr;
    const unsigned long number = strtoul(words[index].c_str(), &end, 10);
    if (end == words[index].c_str() || *end != '\0')
    {
        Fail("not a number: " + words[index]);
    }
    return number;
}

void Fail(const std::string& message)
{
    fprintf(stderr, "%s: %s\n", program_invocation_short_name, message.c_str());
    _exit(1);
}

void ExitWithInput()
{
    std::thread(
        []
        {
            char ignored[64];
            while (read(STDIN_FILENO, ignored, sizeof ignored) > 0)
            {
            }
            _exit(0);
        })
        .detach();
}

std::vector<unsigned char> Payload(std::size_t size)
{
    std::vector<unsigned char> bytes(size);
    unsigned int state = 1;
    for (unsigned char& byte : bytes)
    {
        state = state * 1664525U + 1013904223U;
        byte = static_cast<unsigned char>(state >> 24);
    }
    return bytes;
}

} // namespace qorbench
