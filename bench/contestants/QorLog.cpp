// One log statement of the library, as an application causes it: a failed check is reported by a
// full statement, to the platform log and to the sinks that are on.
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include <qor/QORDebug.h>

#include "Session.h"

int main(int argc, char** argv)
{
    using namespace qorbench;
    const std::string sink = argc > 1 ? argv[1] : "";
    Session session;
    qor::TCDebug& log = qor::TCDebug::m_instance;
    log.EnableFileLog(sink == "file");
    log.EnableStdoutLog(sink == "stdout");
    if (sink == "stdout" && (argc < 3 || freopen(argv[2], "w", stdout) == nullptr))
    {
        Fail("standard output goes to the file that is the second argument");
    }
    session.ReplyReady();
    for (std::vector<std::string> words; session.Next(words);)
    {
        session.ReplySamples(TimeBatches(Number(words, 1), Number(words, 2),
                                         [&]
                                         { log.Assert("/usr/src/monitor/Collector.cpp", 117); }));
        // The same disk for every round.
        if (log.m_pLogFile != nullptr && ftruncate(fileno(log.m_pLogFile), 0) != 0)
        {
            Fail("truncating the log file");
        }
        if (sink == "stdout")
        {
            rewind(stdout);
        }
    }
    return 0;
}
