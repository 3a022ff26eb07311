// File-system queries, listings and changes.
#include <qor/QORFileSystem.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
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

constexpr char USB_MOVE_MARK[] = "media/USB";
constexpr char USB_MAKE_DIR_MARK[] = "opt/media/USB";

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

// The position at the end of the file, which is then rewound; -1 where there is none that fits.
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

// --- Changes -------------------------------------------------------------------------------------

bool TSFileSystem::CopyFile(fs::path source, fs::path destination, bool overwrite)
{
    error_code error;
    fs::copy_file(source, destination, overwrite ? COPY_OVERWRITE : COPY_FAIL_IF_EXISTS, error);
    if (error)
    {
        QOR_LOG_ERROR("Could not copy file: error code: %s", error.message().c_str());
        return false;
    }
    return true;
}

bool TSFileSystem::MoveFile(const fs::path& source, const fs::path& destination, bool overwrite)
{
    if (destination.native().find(USB_MOVE_MARK) != std::string::npos)
    {
        if (CopyFile(source, destination, overwrite))
        {
            return true;
        }
        QOR_LOG_ERROR("Failed to copy file: %s", source.c_str());
        return false;
    }
    error_code error;
    fs::rename(source, destination, error);
    if (error)
    {
        QOR_LOG_ERROR("Could not move/rename file: error code: %s", error.message().c_str());
        return false;
    }
    return true;
}

bool TSFileSystem::RemoveFile(fs::path path)
{
    error_code error;
    fs::remove(path, error);
    if (error)
    {
        QOR_LOG_ERROR("Couldnt delete file: %s, boost error: %d", path.c_str(), error.value());
        return false;
    }
    return true;
}

bool TSFileSystem::RemoveFolder(fs::path path)
{
    error_code error;
    fs::remove_all(path, error);
    if (error)
    {
        QOR_LOG_ERROR("Could not delete folder: %s, error code: %s", path.c_str(),
                      error.message().c_str());
        return false;
    }
    return true;
}

bool TSFileSystem::SetPermissions(fs::path path, fs::perms permissions, int userId, int groupId)
{
    error_code error;
    fs::permissions(path, permissions, error);
    if (error)
    {
        QOR_LOG_ERROR("Couldnt set permissions for: %s", path.c_str());
        return false;
    }
    if (userId == -1 || groupId == -1)
    {
        return true;
    }
    if (chown(path.c_str(), static_cast<uid_t>(userId), static_cast<gid_t>(groupId)) != 0)
    {
        const int number = errno;
        char buffer[256];
        const char* text = strerror_r(number, buffer, sizeof buffer);
        QOR_LOG_ERROR("Couldnt change ownership of %s. Errno: %d, %s", path.c_str(), number, text);
        return false;
    }
    return true;
}

bool TSFileSystem::MakeDir(const fs::path& path, bool openPermissions)
{
    if (FolderExists(path))
    {
        return true;
    }
    error_code error;
    if (!fs::create_directories(path, error))
    {
        if (!FolderExists(path))
        {
            if (error)
            {
                const long freeSpace = GetFreeSpaceSize(path.parent_path());
                QOR_LOG_ERROR("Unable to create directory: %s, error: %s, free space: %ld mb",
                              path.c_str(), error.message().c_str(), freeSpace);
            }
            return false;
        }
        QOR_LOG_ERROR("Dir created by other process %s", path.c_str());
    }
    if (!openPermissions || SetPermissions(path, fs::all_all, -1, -1))
    {
        return true;
    }
    return path.native().find(USB_MAKE_DIR_MARK) != std::string::npos;
}

bool TSFileSystem::GenerateUniqueName(const fs::path& directory, const fs::path& fileName,
                                      fs::path& uniquePath)
{
    const std::string& name = fileName.native();
    const std::size_t suffix = std::min(name.rfind('.'), name.size()); // at the end without a dot
    error_code error;
    fs::path tried = directory / fileName;
    for (int counter = 1; fs::exists(fs::status(tried, error)); ++counter)
    {
        std::string candidate = name;
        candidate.insert(suffix, "_" + std::to_string(counter));
        tried = directory / candidate;
    }
    uniquePath = std::move(tried);
    if (error != boost::system::errc::no_such_file_or_directory)
    {
        QOR_LOG_DEBUG("Not expected boost error %d", error.value());
        return false;
    }
    return true;
}

// NOLINTEND(performance-unnecessary-value-param)

} // namespace qor
