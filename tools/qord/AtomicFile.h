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

/// What has become of the file that was replaced.
struct TSReplaced
{
    std::string m_former;  ///< Its name now; empty where there was none, or it has none any more.
    std::string m_warning; ///< What could not be kept of it, in words, or empty.
};

/// A reader, and a crash at any moment, find either the old or the new text, whole. What is being
/// written stands beside the file, as .NAME.new-N, and then exchanges names with it, so that the
/// old file is there in its turn. N is the old file's own number in the file system: it tells the
/// two apart, whatever a crash has left. Where names cannot be exchanged, the old file is kept by a
/// link, .NAME.old. The directory must outlive this object.
class TCAtomicFile
{
public:
    TCAtomicFile(const TCDirectory& directory, std::string name);

    /// @param status  of the file; unspecified when there is none
    /// @return whether there is one
    /// @throws TCFileError also where something else has its name
    bool Look(struct stat& status) const;

    /// Tries in the directory what Replace needs, and leaves nothing.
    ///
    /// @throws TCFileError
    void Probe() const;

    /// Removes what an interrupted Replace has left, except for former files that a new one has
    /// indeed replaced: those are the caller's to keep or to remove.
    ///
    /// @param warning  what could not be removed is added here
    ///
    /// @return their names
    /// @throws TCFileError
    std::vector<std::string> Tidy(std::string& warning) const;

    /// What is to be done meanwhile, while the new file is not yet in force.
    struct TSSteps
    {
        std::function<void(const struct stat& file)> m_onWritten; ///< It need not be on the disk.
        std::function<void()> m_onDisk;
    };

    /// Returns when the text is on the disk. The new file has the rights of the one that it
    /// replaces (see TakeRights).
    ///
    /// @param needsFormer  not to be left without the former file by a crash, where that can be had
    ///
    /// @throws TCFileError     the old file is in place, also after a crash
    /// @throws TCStateUnknown  it may not be
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
    std::string m_unfinished; ///< The begin of its name.
    std::string m_former;
};

/// A file that is replaced and needs no way back. The directory must outlive this object. What it
/// leaves where it is not finished is reused the next time.
class TCPlainReplacement
{
public:
    /// Writes the text beside the file of that name.
    ///
    /// @throws TCFileError
    TCPlainReplacement(const TCDirectory& directory, std::string name, std::string_view text,
                       bool isRestricted);

    /// Returns when the text is on the disk and has the name, once. That it has the name is on the
    /// disk with the directory's next sync.
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
