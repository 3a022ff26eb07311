// A file that is replaced in one step, with a way back.
#ifndef QORD_ATOMICFILE_H
#define QORD_ATOMICFILE_H

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "qord/Directory.h"
#include "qord/FileError.h"

namespace qord
{

/// The replacement could neither be finished nor taken back.
class TCStateUnknown : public TCFileError
{
public:
    using TCFileError::TCFileError;
};

/// The fate of the file that was replaced.
struct TSReplaced
{
    std::string m_former;  ///< Its present name; empty if there was no file, or it was removed.
    std::string m_warning; ///< What could not be kept of it, in words, or empty.
};

/// Replaces a file so that readers always find either the old or the new text whole, even after a
/// crash. The new text is written to .NAME.new-N in the same directory; then the two files exchange
/// names, so that .NAME.new-N is the old file. N is the inode number of the old file: it tells the
/// two apart after a crash. If names cannot be exchanged, a link .NAME.old keeps the old file. The
/// directory must outlive this object.
class TCAtomicFile
{
public:
    TCAtomicFile(const TCDirectory& directory, std::string name);

    /// @param status  of the file; unspecified if there is no file
    /// @return whether there is a file
    /// @throws TCFileError also if the name belongs to something other than a file
    bool Look(struct stat& status) const;

    /// Tries the steps of Replace in the directory, and leaves nothing behind.
    ///
    /// @throws TCFileError
    void Probe() const;

    /// Removes the files that an interrupted Replace has left, except for old files that a new one
    /// has really replaced: the caller keeps or removes these.
    ///
    /// @param warning  gets the names of files that could not be removed
    ///
    /// @return the names of the old files
    /// @throws TCFileError
    std::vector<std::string> Tidy(std::string& warning) const;

    /// Functions to call while the new file is not in force yet.
    struct TSSteps
    {
        std::function<void(const struct stat& file)> m_onWritten; ///< It need not be on the disk.
        std::function<void()> m_onDisk;
    };

    /// Returns when the text is on the disk. The new file has the rights of the one that it
    /// replaces (see TakeRights).
    ///
    /// @param needsFormer  a crash must not lose the old file, if the file system allows that
    ///
    /// @throws TCFileError     the old file is in place, also after a crash
    /// @throws TCStateUnknown  the old or the new file may be in place
    TSReplaced Replace(std::string_view text, bool isRestricted, bool needsFormer,
                       const TSSteps& steps) const;

private:
    class TCPassingName;

    std::string m_UnfinishedName(const struct stat* pReplaced) const;
    std::string m_Swap(TCPassingName& unfinished) const;
    std::string m_LinkAndRename(TCPassingName& unfinished, bool needsFormer) const;
    bool m_LinkFormer() const;
    void m_SyncOrTakeBack(TCPassingName& name, const std::function<void()>& takeBack) const;

    const TCDirectory& m_directory;
    std::string m_name;
    std::string m_unfinished; ///< The beginning of its name.
    std::string m_former;
};

/// Replaces a file without a way to take that back. The directory must outlive this object. If it
/// is not finished, its new file is reused the next time.
class TCPlainReplacement
{
public:
    /// Writes the text into a new file in the same directory.
    ///
    /// @throws TCFileError
    TCPlainReplacement(const TCDirectory& directory, std::string name, std::string_view text,
                       bool isRestricted);

    /// Gives the new file the name; to be called once. Returns when the text is on the disk; the
    /// name is on the disk with the directory's next sync.
    ///
    /// @throws TCFileError the old file is in place
    void Finish();

private:
    const TCDirectory& m_directory;
    std::string m_name;
    std::string m_unfinished;
    TCDescriptor m_file;
};

} // namespace qord

#endif
