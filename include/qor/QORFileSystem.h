// File-system operations for the service.
#ifndef QOR_QORFILESYSTEM_H
#define QOR_QORFILESYSTEM_H

#include <list>
#include <set>
#include <string>
#include <vector>

#include <boost/filesystem.hpp> // filesystem_error has moved among the smaller ones

#include <qor/Export.h>

namespace qor
{

/// Queries, listings and changes of the file system. Failures are reported by the result and one
/// log line; only the four listings (GetFiles, GetFileList, GetDirList, GetDirSize) let exceptions
/// of the file system pass, where their descriptions say so.
///
/// No state and no lock: any thread may call any operation, and each blocks for as long as the file
/// system takes. Two calls on the same paths race as the file system lets them. Symbolic links are
/// followed unless said otherwise. Paths are bytes; no encoding is assumed.
class QOR_API TSFileSystem
{
public:
    /// Whether anything exists at the path, of whatever type. A path whose status cannot be read
    /// counts as absent. Logs nothing.
    static bool FileExists(boost::filesystem::path path);

    /// Whether the path is a directory; false, with an error in the log, for everything else.
    static bool FolderExists(boost::filesystem::path path);

    /// The time of the last modification in seconds since the epoch; 0, with an error in the log,
    /// when it cannot be read.
    static int GetLastModificationTime(const boost::filesystem::path& path);

    /// The space that unprivileged users have left on the file system of the path, in whole MiB
    /// (rounded down); -1, with an error in the log, when it cannot be read.
    static int GetFreeSpaceSize(boost::filesystem::path path);

    /// Reads a whole file.
    ///
    /// @param data  replaced by the file's bytes on success, unchanged otherwise
    /// @return false, with a line in the log, when the file cannot be opened or read, is empty, or
    ///         has 2 GiB or more
    static bool GetFileContents(const std::string& fileName, std::vector<unsigned char>& data);

    /// Finds the regular files with an extension in a whole tree, directory by directory from the
    /// top. A directory that is reached again, through a link, is not visited twice.
    ///
    /// @param files      the names found are appended, without their directories
    /// @param extension  compared exactly, with its dot (".xml"); empty: files without one
    ///
    /// @return false when the last step of the walk (opening a directory or asking for an entry's
    ///         type) failed; an earlier failure is forgotten when a later step succeeds. What was
    ///         found stays in files. Nothing is logged.
    ///
    /// @throws boost::filesystem::filesystem_error when the status of an entry cannot be read, or
    ///         a directory cannot be read to its end. An entry that has been removed meanwhile is
    ///         skipped.
    static bool GetFiles(std::vector<boost::filesystem::path>& files, boost::filesystem::path path,
                         std::string extension);

    /// The full paths of the regular files in a directory itself, in the directory's order.
    ///
    /// @param extension  as in GetFiles, but empty accepts every file
    /// @param text       accepts the files whose full path, directory included, contains it; empty
    ///                   accepts every file
    ///
    /// @return an empty list when the directory cannot be opened; nothing is logged
    ///
    /// @throws boost::filesystem::filesystem_error as GetFiles
    static std::list<boost::filesystem::path> GetFileList(const boost::filesystem::path& path,
                                                          const std::string& extension,
                                                          const std::string& text);

    /// The full paths of the directories in a directory itself.
    ///
    /// @return an empty set when the directory cannot be opened; nothing is logged
    ///
    /// @throws boost::filesystem::filesystem_error as GetFiles
    static std::set<boost::filesystem::path> GetDirList(const boost::filesystem::path& path);

    /// The sizes of all files in a tree, added up, in bytes modulo 4 GiB. Visits directories as
    /// GetFiles does; they add nothing themselves.
    ///
    /// @return 20971520, with an error in the log, when a directory cannot be read to its end; 0,
    ///         with an error in the log, when the last step of the walk failed, as in GetFiles
    ///
    /// @throws boost::filesystem::filesystem_error for an entry that is neither a directory nor a
    ///         regular file (a device, a FIFO, a socket, a link that leads nowhere), and for a file
    ///         whose size cannot be read
    static unsigned int GetDirSize(const boost::filesystem::path& path);

    /// Copies a file, its permissions included.
    ///
    /// @param overwrite  replace an existing destination; otherwise that is a failure
    /// @return false, with an error in the log, when the file was not copied
    static bool CopyFile(boost::filesystem::path source, boost::filesystem::path destination,
                         bool overwrite);

    /// Moves a file by renaming it, which replaces an existing destination and fails between file
    /// systems. Where the destination path contains "media/USB" the file is copied instead and the
    /// source stays.
    ///
    /// @param overwrite  for the copy only: as in CopyFile
    /// @return false, with an error in the log, when the file was neither renamed nor copied
    static bool MoveFile(const boost::filesystem::path& source,
                         const boost::filesystem::path& destination, bool overwrite);

    /// Removes a file, a link (not its target) or an empty directory.
    ///
    /// @return true also when there is nothing at the path; false, with an error in the log, when
    ///         the removal failed
    static bool RemoveFile(boost::filesystem::path path);

    /// Removes a directory with all that it contains; links are removed, not followed. A failure
    /// leaves the rest in place.
    ///
    /// @return as RemoveFile
    static bool RemoveFolder(boost::filesystem::path path);

    /// Sets permission bits and, where both ids are given, the owner.
    ///
    /// @param permissions  may carry the add or the remove modifier
    /// @param userId       -1: not given
    /// @param groupId      -1: not given
    /// @return false, with an error in the log, when one of the two failed. The owner is
    ///         left as it is where the bits cannot be set.
    static bool SetPermissions(boost::filesystem::path path, boost::filesystem::perms permissions,
                               int userId, int groupId);

    /// Creates a directory and those above it that are missing. Another process may create it at
    /// the same time. An existing directory is left as it is.
    ///
    /// @param openPermissions  sets the mode 0777 on the new directory, but on none above it. Where
    ///                         the file system refuses that, the call fails, unless the path
    ///                         contains "opt/media/USB".
    /// @return false, with an error in the log, when there is no such directory now or its
    ///         permissions could not be set
    static bool MakeDir(const boost::filesystem::path& path, bool openPermissions);

    /// Finds a path in the directory for a new file: the name itself, else the name with _1, _2 and
    /// so on before its last dot (at its end if it has none). Reserves nothing: two callers may get
    /// the same path.
    ///
    /// @param uniquePath  the free path; after a failure the last one tried
    /// @return false, with a line in the log, when a path cannot be checked
    static bool GenerateUniqueName(const boost::filesystem::path& directory,
                                   const boost::filesystem::path& fileName,
                                   boost::filesystem::path& uniquePath);
};

} // namespace qor

#endif
