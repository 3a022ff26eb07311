// Changes of the file system.
#include <qor/QORFileSystem.h>

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <utility>

#include "QORBoostCompat.h"
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

} // namespace

// NOLINTBEGIN(performance-unnecessary-value-param): which paths come by value is the interface's

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
        error.assign(errno, boost::system::generic_category());
        QOR_LOG_ERROR("Couldnt change ownership of %s. Errno: %d, %s", path.c_str(), error.value(),
                      error.message().c_str());
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
