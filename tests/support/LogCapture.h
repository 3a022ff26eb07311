// What the code under test wrote to the platform log.
#ifndef QORTEST_LOGCAPTURE_H
#define QORTEST_LOGCAPTURE_H

#include <cstddef>
#include <string>
#include <vector>

namespace qortest
{

constexpr int LOG_DEBUG = 3;
constexpr int LOG_INFO = 4;
constexpr int LOG_ERROR = 6;

struct LogLine
{
    int id;
    int priority;
    std::string tag;
    std::string text; // "File.cpp: function(line) > message"
};

class LogCapture
{
public:
    static void Clear();
    static std::vector<LogLine> Lines();

    /// How many lines of that priority contain the text.
    static std::size_t Count(int priority, const std::string& messagePart);
};

} // namespace qortest

#endif
