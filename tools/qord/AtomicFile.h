// A file that is replaced in one step, with a way back.
#ifndef QORD_ATOMICFILE_H
#define QORD_ATOMICFILE_H

#include <string>
#include <string_view>

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

/// A reader, and a crash at any moment, find either the old or the new text, whole. While it is
/// replaced, two more names stand beside it: .NAME.new, what is being written, and .NAME.old, a
/// link to the former file. The directory must outlive this object.
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
    void Probe(bool needsFormer) const;

    /// Removes what an interrupted Replace has left, except for a former file that a new one has
    /// indeed replaced: that is the caller's to keep or to remove.
    ///
    /// @return whether there is one, under the name Former
    /// @throws TCFileError
    bool Tidy() const;

    const std::string& Former() const
    {
        return m_former;
    }

    /// Returns when the text is on the disk. The new file has the permissions of the one that it
    /// replaces, and its owner where the process may give files away; 0644 where there is none.
    /// What it has replaced is left under the name Former, if the file system has links.
    ///
    /// @param needsFormer  replace nothing where the former file cannot be linked; its link is on
    ///                     the disk before the new file takes the name
    ///
    /// @throws TCFileError     the old file is in place, also after a crash
    /// @throws TCStateUnknown  it may not be
    void Replace(std::string_view text, bool needsFormer) const;

private:
    bool m_LinkFormer(bool needsFormer) const;
    void m_PutBack(bool isThere, bool isLinked, const TCFileError& reason) const;

    const TCDirectory& m_directory;
    std::string m_name;
    std::string m_unfinished;
    std::string m_former;
};

} // namespace qord

#endif
