// Reads the policy that is to be sent.
#include "qorctl/PolicyText.h"

#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>

namespace qorctl
{
namespace
{

struct TSClose
{
    void operator()(FILE* pFile) const
    {
        if (pFile != stdin)
        {
            std::fclose(pFile);
        }
    }
};

} // namespace

bool ReadPolicyText(const std::string& file, std::string& text, std::string& error)
{
    const bool isStandardInput = file == "-";
    const std::string name = isStandardInput ? "standard input" : file;
    const std::unique_ptr<FILE, TSClose> input(isStandardInput ? stdin
                                                               : std::fopen(file.c_str(), "rbe"));
    if (!input)
    {
        error = name + ": " + std::generic_category().message(errno);
        return false;
    }
    char buffer[65536];
    while (const std::size_t count = std::fread(buffer, 1, sizeof buffer, input.get()))
    {
        text.append(buffer, count);
    }
    if (std::ferror(input.get()) != 0)
    {
        error = name + ": " + std::generic_category().message(errno);
        return false;
    }
    if (text.empty())
    {
        error = name + " is empty";
        return false;
    }
    return true;
}

} // namespace qorctl
