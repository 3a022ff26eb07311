// Directory entries, with as few status queries as possible.
#include "QORDirectoryReader.h"

#include <fcntl.h>

#include <cerrno>
#include <cstring>

#include <boost/filesystem.hpp> // filesystem_error has moved among the smaller ones

namespace fs = boost::filesystem;

namespace qor
{

TCDirectoryReader::TCDirectoryReader(const fs::path& directory, boost::system::error_code& error)
    : m_directory(directory),
      m_pDirectory(opendir(directory.c_str())),
      m_pEntry(nullptr),
      m_identity(),
      m_searchable(false)
{
    error.clear();
    if (!m_pDirectory)
    {
        error.assign(errno, boost::system::system_category());
        return;
    }
    m_Identify();
    const int failure = m_Read();
    if (failure != 0)
    {
        error.assign(failure, boost::system::system_category());
    }
}

void TCDirectoryReader::Next()
{
    const int failure = m_Read();
    if (failure != 0)
    {
        throw fs::filesystem_error(
            "qor::TCDirectoryReader::Next", m_directory,
            boost::system::error_code(failure, boost::system::system_category()));
    }
}

int TCDirectoryReader::m_Read()
{
    do
    {
        errno = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): each reader has a stream of its own
        m_pEntry = readdir(m_pDirectory.get());
        if (m_pEntry == nullptr)
        {
            return errno;
        }
    } while (std::strcmp(m_pEntry->d_name, ".") == 0 || std::strcmp(m_pEntry->d_name, "..") == 0);
    return 0;
}

// Looking up "." takes the permission to search the directory, as any look-up in it does. Without
// that permission no entry has a status, and the types that the directory tells must not hide it.
void TCDirectoryReader::m_Identify()
{
    struct stat status;
    const int descriptor = dirfd(m_pDirectory.get());
    m_searchable = fstatat(descriptor, ".", &status, 0) == 0;
    if (m_searchable || fstat(descriptor, &status) == 0)
    {
        m_identity = TIdentity(status.st_dev, status.st_ino);
    }
}

// type_unknown where only a query tells: links, and file systems that do not tell types.
fs::file_type TCDirectoryReader::m_KnownType() const
{
    if (!m_searchable)
    {
        return fs::type_unknown;
    }
    switch (m_pEntry->d_type)
    {
    case DT_REG:
        return fs::regular_file;
    case DT_DIR:
        return fs::directory_file;
    case DT_FIFO:
        return fs::fifo_file;
    case DT_SOCK:
        return fs::socket_file;
    case DT_CHR:
        return fs::character_file;
    case DT_BLK:
        return fs::block_file;
    default:
        return fs::type_unknown;
    }
}

fs::file_type TCDirectoryReader::Type(boost::system::error_code& error) const
{
    const fs::file_type known = m_KnownType();
    if (known == fs::type_unknown)
    {
        return fs::status(Path(), error).type();
    }
    error.clear();
    return known;
}

fs::file_type TCDirectoryReader::Type() const
{
    const fs::file_type known = m_KnownType();
    return known == fs::type_unknown ? fs::status(Path()).type() : known;
}

bool TCDirectoryReader::Stat(struct stat& status, boost::system::error_code& error) const
{
    error.clear();
    if (fstatat(dirfd(m_pDirectory.get()), m_pEntry->d_name, &status, 0) == 0)
    {
        return true;
    }
    error.assign(errno, boost::system::system_category());
    return false;
}

} // namespace qor
