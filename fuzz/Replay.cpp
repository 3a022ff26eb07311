// Runs a fuzz target over files and over the files of directories, with any compiler.
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>

#include "FuzzTarget.h"

namespace
{

namespace fs = boost::filesystem;

std::vector<std::string> FilesOf(const fs::path& path)
{
    if (!fs::is_directory(path))
    {
        return {path.string()};
    }
    std::vector<std::string> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
    {
        files.push_back(entry.path().string());
    }
    std::sort(files.begin(), files.end());
    return files;
}

void Run(const std::string& file)
{
    std::ifstream stream(file, std::ios::binary);
    const std::string content((std::istreambuf_iterator<char>(stream)),
                              std::istreambuf_iterator<char>());
    std::fprintf(stderr, "%s\n", file.c_str());
    // A copy of exactly that size, so that a step beyond its end is seen.
    const std::vector<std::uint8_t> input(content.begin(), content.end());
    LLVMFuzzerTestOneInput(input.data(), input.size());
}

} // namespace

int main(int count, char** arguments)
{
    std::size_t inputs = 0;
    for (int i = 1; i < count; ++i)
    {
        for (const std::string& file : FilesOf(arguments[i]))
        {
            Run(file);
            ++inputs;
        }
    }
    std::printf("%zu inputs\n", inputs);
    return inputs == 0 ? 1 : 0;
}
