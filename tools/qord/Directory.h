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

    /// Closes it; false, with errno, where the system reports a failed write only now.
    bool Close();

private:
    int m_descriptor;
};

/// All steps are taken in the directory as it was opened, whatever happens to its path meanwhile.
/// Names are those of its entries; links are not followed. Everything throws TCFileError.
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

    /// Two files change their names in one step.
    ///
    /// @return false where the file system or the kernel has no such step, or a filter refuses it
    bool Exchange(const std::string& one, const std::string& other) const;

    /// A file, a link, a pipe; not a directory. That there is none is fine.
    void Remove(const std::string& name) const;

    /// Returns when all changes of names are on the disk.
    void Sync() const;

    std::vector<std::string> List() const;

    /// Reads a file of that name. Whoever may write here cannot make the reader wait, or have it
    /// read what stands elsewhere.
    ///
    /// @return false, with the reason in error, when it cannot be read or is larger than that; with
    ///         an empty one when there is none
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
