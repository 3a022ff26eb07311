// Reads a directory with the entry types that it tells itself.
#ifndef QOR_QORDIRECTORYREADER_H
#define QOR_QORDIRECTORYREADER_H

#include <dirent.h>
#include <sys/stat.h>

#include <memory>
#include <utility>

#include <boost/filesystem/operations.hpp>

namespace qor
{

/// Walks the entries of one directory, without "." and "..", and asks the system for a status only
/// if the directory does not tell the type. Boost's iterator has room for that type, but 1.74
/// and 1.81 as Debian builds them ask for every entry all the same: listing a tree of 100 000 files
/// with it took 139 ms, against 26 ms with this reader and 75 ms with the standard recursive
/// iterator.
class TCDirectoryReader
{
public:
    using TIdentity = std::pair<dev_t, ino_t>;

    /// Opens the directory and reads its first entry. The error is cleared or set; after an error
    /// there are no entries. The path must outlive the reader.
    TCDirectoryReader(const boost::filesystem::path& directory, boost::system::error_code& error);

    /// Whether there is a current entry.
    explicit operator bool() const
    {
        return m_pEntry != nullptr;
    }

    /// Goes on to the next entry.
    /// @throws boost::filesystem::filesystem_error when the directory cannot be read any further;
    ///         there is no current entry then
    void Next();

    const char* Name() const
    {
        return m_pEntry->d_name;
    }
    boost::filesystem::path Path() const
    {
        return m_directory / m_pEntry->d_name;
    }

    /// The type of the current entry, links followed; status_error, file_not_found and the error
    /// as boost::filesystem::status has them.
    boost::filesystem::file_type Type(boost::system::error_code& error) const;

    /// The same; a status that cannot be read is thrown.
    boost::filesystem::file_type Type() const;

    /// Status of the current entry, links followed; false with an error.
    bool Stat(struct stat& status, boost::system::error_code& error) const;

    /// The identity of this directory, whichever path has led to it.
    TIdentity Identity() const
    {
        return m_identity;
    }

private:
    struct TSClose
    {
        void operator()(DIR* pDirectory) const
        {
            closedir(pDirectory);
        }
    };

    int m_Read();
    void m_Identify();
    boost::filesystem::file_type m_KnownType() const;

    const boost::filesystem::path& m_directory;
    std::unique_ptr<DIR, TSClose> m_pDirectory;
    const dirent* m_pEntry;
    TIdentity m_identity;
    bool m_searchable;
};

} // namespace qor

#endif
