// Says that this process, and no other, keeps a file.
#ifndef QORD_FILELOCK_H
#define QORD_FILELOCK_H

#include <string>

#include "qord/Directory.h"

namespace qord
{

/// Held as long as it lives, and given back by the system when the process ends, however it ends.
/// The lock file itself stays: removing it would let two processes hold different ones.
class TCFileLock
{
public:
    /// @throws TCFileError where another process, which is named, holds it, or it cannot be had
    TCFileLock(const TCDirectory& directory, const std::string& name);

    /// Whether that is still the file that is locked: another directory may have taken the place of
    /// the one in which it was.
    bool IsOf(const TCDirectory& directory, const std::string& name) const;

private:
    TCDescriptor m_file;
};

} // namespace qord

#endif
