// File-system queries and listings.
#include <qor/QORFileSystem.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <queue>
#include <utility>

#include "QORBoostCompat.h"
#include "QORDirectoryReader.h"
#include "QORLog.h"

#define QOR_LOG_CLASS "qor::TSFileSystem"

namespace fs = boost::filesystem;

namespace qor
{

namespace
{

using boost::system::error_code;

// Stands for the size of a tree that cannot be read to its end.
constexpr unsigned int ASSUMED_DIR_SIZE = 20 * 1024 * 1024;

struct TSFileClose
{
    void operator()(FILE* pFile) const
    {
        std::fclose(pFile);
    }
};
using TFilePtr = std::unique_ptr<FILE, TSFileClose>;

// The position at the end of the file, which is then rewound; -1 if there is none or it is too
// large.
std::int32_t FileSize(FILE* pFile)
{
    if (std::fseek(pFile, 0, SEEK_END) != 0)
    {
        return -1;
    }
    const long size = std::ftell(pFile);
    if (size < 0 || size > std::numeric_limits<std::int32_t>::max() ||
        std::fseek(pFile, 0, SEEK_SET) != 0)
    {
        return -1;
    }
    return static_cast<std::int32_t>(size);
}

bool HasExtension(const char* fileName, const std::string& extension)
{
    const char* pDot = std::strrchr(fileName, '.');
    return extension == (pDot != nullptr ? pDot : "");
}

// The directories of a tree in breadth-first order. Remembering which ones were visited ends the
// loops that links can make.
class TCTreeQueue
{
public:
    explicit TCTreeQueue(fs::path root)
    {
        Add(std::move(root));
    }

    void Add(fs::path directory)
    {
        m_directories.push(std::move(directory));
    }

    bool Take(fs::path& directory)
    {
        if (m_directories.empty())
        {
            return false;
        }
        directory = std::move(m_directories.front());
        m_directories.pop();
        return true;
    }

    // Whether the opened directory is met for the first time.
    bool Enter(const TCDirectoryReader& reader)
    {
        return m_visited.insert(reader.Identity()).second;
    }

private:
    std::queue<fs::path> m_directories;
    std::set<TCDirectoryReader::TIdentity> m_visited;
};

// Adds the size of the current entry, or queues it if it is a directory.
void AddEntrySize(const TCDirectoryReader& entry, TCTreeQueue& queue, unsigned int& total,
                  error_code& error)
{
    struct stat status;
    const bool known = entry.Stat(status, error);
    if (known && S_ISDIR(status.st_mode))
    {
        queue.Add(entry.Path());
        return;
    }
    const bool regular = known && S_ISREG(status.st_mode);
    // file_size throws for all that is no regular file
    const auto size =
        regular ? static_cast<std::uintmax_t>(status.st_size) : fs::file_size(entry.Path());
    total += static_cast<unsigned int>(size);
}

} // namespace

// NOLINTBEGIN(performance-unnecessary-value-param): which paths come by value is the interface's

// --- Queries -------------------------------------------------------------------------------------

bool TSFileSystem::FileExists(fs::path path)
{
    error_code error;
    return fs::exists(fs::status(path, error));
}

bool TSFileSystem::FolderExists(fs::path path)
{
    error_code error;
    const fs::file_status status = fs::status(path, error);
    if (!fs::exists(status))
    {
        QOR_LOG_ERROR("File %s does not exist", path.c_str());
        return false;
    }
    if (status.type() != fs::directory_file)
    {
        QOR_LOG_ERROR("Path %s exists but it is not a directory", path.c_str());
        return false;
    }
    return true;
}

int TSFileSystem::GetLastModificationTime(const fs::path& path)
{
    struct stat status;
    if (stat(path.c_str(), &status) != 0)
    {
        QOR_LOG_ERROR("ERROR");
        return 0;
    }
    return static_cast<int>(status.st_mtime);
}

int TSFileSystem::GetFreeSpaceSize(fs::path path)
{
    error_code error;
    const fs::space_info space = fs::space(path, error);
    if (error)
    {
        QOR_LOG_ERROR("Error checking free space: boost error %d", error.value());
        return -1;
    }
    return static_cast<int>(space.available >> 20);
}

bool TSFileSystem::GetFileContents(const std::string& fileName, std::vector<unsigned char>& data)
{
    const TFilePtr file(std::fopen(fileName.c_str(), "rb"));
    if (!file)
    {
        QOR_LOG_DEBUG("File %s opening failed", fileName.c_str());
        return false;
    }
    const std::int32_t size = FileSize(file.get());
    if (size == 0)
    {
        QOR_LOG_ERROR("File %s size is 0!", fileName.c_str());
        return false;
    }
    if (size < 0)
    {
        QOR_LOG_ERROR("Error reading file: %s", fileName.c_str());
        return false;
    }
    std::vector<unsigned char> buffer;
    try
    {
        buffer.resize(static_cast<std::size_t>(size));
    }
    catch (const std::bad_alloc&) // on a 32-bit processor already for a directory
    {
        QOR_LOG_ERROR("Error reading file: %s", fileName.c_str());
        return false;
    }
    if (std::fread(buffer.data(), buffer.size(), 1, file.get()) != 1)
    {
        QOR_LOG_ERROR("Error reading file: %s", fileName.c_str());
        return false;
    }
    data.swap(buffer);
    return true;
}

// --- Listings ------------------------------------------------------------------------------------

bool TSFileSystem::GetFiles(std::vector<fs::path>& files, fs::path path, std::string extension)
{
    error_code error;
    TCTreeQueue queue(std::move(path));
    for (fs::path directory; queue.Take(directory);)
    {
        TCDirectoryReader entry(directory, error);
        if (!entry || !queue.Enter(entry))
        {
            continue;
        }
        for (; entry; entry.Next())
        {
            fs::file_type type = entry.Type(error);
            if (type == fs::directory_file)
            {
                queue.Add(entry.Path());
                continue;
            }
            if (type == fs::status_error)
            {
                type = entry.Type(); // throws
            }
            if (type == fs::regular_file && HasExtension(entry.Name(), extension))
            {
                files.emplace_back(entry.Name());
            }
        }
    }
    return !error;
}

std::list<fs::path> TSFileSystem::GetFileList(const fs::path& path, const std::string& extension,
                                              const std::string& text)
{
    std::list<fs::path> files;
    error_code error;
    for (TCDirectoryReader entry(path, error); entry; entry.Next())
    {
        if (entry.Type() != fs::regular_file)
        {
            continue;
        }
        if (!extension.empty() && !HasExtension(entry.Name(), extension))
        {
            continue;
        }
        fs::path file = entry.Path();
        if (text.empty() || file.native().find(text) != std::string::npos)
        {
            files.push_back(std::move(file));
        }
    }
    return files;
}

std::set<fs::path> TSFileSystem::GetDirList(const fs::path& path)
{
    std::set<fs::path> directories;
    error_code error;
    for (TCDirectoryReader entry(path, error); entry; entry.Next())
    {
        if (entry.Type() == fs::directory_file)
        {
            const fs::path directory = entry.Path();
            directories.insert(directory);
            QOR_LOG_DEBUG("Add %s dir to list", directory.c_str());
        }
    }
    return directories;
}

unsigned int TSFileSystem::GetDirSize(const fs::path& path)
{
    unsigned int total = 0;
    error_code error;
    TCTreeQueue queue(path);
    for (fs::path directory; queue.Take(directory);)
    {
        TCDirectoryReader entry(directory, error);
        if (!entry || !queue.Enter(entry))
        {
            continue;
        }
        while (entry)
        {
            AddEntrySize(entry, queue, total, error);
            try
            {
                entry.Next();
            }
            catch (const fs::filesystem_error& failure)
            {
                QOR_LOG_ERROR("Error getting dir size, boost error %s", failure.what());
                return ASSUMED_DIR_SIZE;
            }
        }
    }
    if (error)
    {
        QOR_LOG_ERROR("Error getting dir size, boost error %d", error.value());
        return 0;
    }
    return total;
}

// NOLINTEND(performance-unnecessary-value-param)

} // namespace qor
