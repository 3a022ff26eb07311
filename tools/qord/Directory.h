// A directory that stays open, and the steps that are taken in it.
#ifndef QORD_DIRECTORY_H
#define QORD_DIRECTORY_H

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qord
{

/// Owns a file descriptor.
class TCDescriptor
{
public:
    explicit TCDescriptor(int descriptor) : m_descriptor(descriptor) {}
    ~TCDescriptor();

    TCDescriptor(const TCDescriptor&) = delete;
    TCDescriptor& operator=(const TCDescriptor&) = delete;

    int Get() const
    {
        return m_descriptor;
    }

    /// Closes it; false, with errno, if the system reports a failed write only now.
    bool Close();

private:
    int m_descriptor;
};

/// All functions work in the directory that was opened, even if its path leads elsewhere meanwhile.
/// Names are those of its entries; links are not followed. All functions throw TCFileError.
class TCDirectory
{
public:
    explicit TCDirectory(const std::string& path);

    int Get() const
    {
        return m_descriptor.Get();
    }

    /// @return false when there is nothing of that name
    bool Look(const std::string& name, struct stat& status) const;
    bool Has(const std::string& name) const;

    void Link(const std::string& from, const std::string& to) const;
    void Rename(const std::string& from, const std::string& to) const;

    /// Exchanges the names of two files in one step.
    ///
    /// @return false if the file system or the kernel cannot do that, or a filter refuses it
    bool Exchange(const std::string& one, const std::string& other) const;

    /// Removes a file, a link or a pipe, but not a directory. It is no error if there is none.
    void Remove(const std::string& name) const;

    /// Returns when all changes of names are on the disk.
    void Sync() const;

    std::vector<std::string> List() const;

    /// Reads a file. Another user who may write to the directory cannot make it wait (with a pipe)
    /// or read a file elsewhere (with a link).
    ///
    /// @return false if it cannot be read or is larger than maxSize, with the reason in error; the
    ///         reason is empty if there is no file
    bool Read(const std::string& name, std::string& text, std::size_t maxSize,
              std::string& error) const;

    /// For calls that take nothing but a path; of the directory as it was opened too.
    std::string PathOf(const std::string& name) const;

    /// For this process, in bytes.
    std::uint64_t FreeSpace() const;

private:
    TCDescriptor m_descriptor;
};

} // namespace qord

#endif
