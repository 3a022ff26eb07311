// The same log line by spdlog, with the same sink and the same flushing: the file after each line,
// standard output when the C library does.
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>

#include "Session.h"

namespace
{

using namespace qorbench;

// spdlog's own sink for standard output flushes each line; the library does not.
class UnflushedStdoutSink : public spdlog::sinks::base_sink<std::mutex>
{
protected:
    void sink_it_(const spdlog::details::log_msg& message) override
    {
        spdlog::memory_buf_t line;
        formatter_->format(message, line);
        fwrite(line.data(), 1, line.size(), stdout);
    }
    void flush_() override
    {
        fflush(stdout);
    }
};

} // namespace

int main(int argc, char** argv)
{
    const std::string sink = argc > 2 ? argv[1] : "";
    Session session;
    spdlog::sink_ptr target = std::make_shared<UnflushedStdoutSink>();
    if (sink == "file")
    {
        target = std::make_shared<spdlog::sinks::basic_file_sink_mt>(argv[2], true);
    }
    else if (freopen(argc > 2 ? argv[2] : "", "w", stdout) == nullptr)
    {
        Fail("a file is needed as the second argument");
    }
    spdlog::logger logger("bench", target);
    logger.set_pattern("%v");
    logger.set_level(sink == "off" ? spdlog::level::off : spdlog::level::debug);
    if (sink == "file")
    {
        logger.flush_on(spdlog::level::debug);
    }
    session.ReplyReady();
    for (std::vector<std::string> words; session.Next(words);)
    {
        session.ReplySamples(TimeBatches(
            Number(words, 1), Number(words, 2),
            [&]
            {
                logger.error("QOR >{}:{}:{}< Error for {} file in line {}.", "qor::TCDebug",
                             "Assert", 112, "/usr/src/monitor/Collector.cpp", 117);
            }));
        if (sink == "file" && truncate(argv[2], 0) != 0)
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
