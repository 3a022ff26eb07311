// Owner, group and rights of a new file.
#ifndef QORD_FILERIGHTS_H
#define QORD_FILERIGHTS_H

#include <string>

#include "qord/Directory.h"

namespace qord
{

/// Gives a new file the owner, the group, the permissions and the access list of the file that it
/// will replace, as far as this process may. If it may not, no user gets more rights than before: a
/// group that is not the old file's gets only the rights of everybody.
///
/// @param file         of this process's user, open for writing, not readable by others yet
/// @param pReplaced    null if there is no old file; then everybody may read the new one
/// @param isRestricted only owner, group, and the users and groups of the access list get rights
///
/// @return what could not be kept, in words, or empty
/// @throws TCFileError
std::string TakeRights(const TCDirectory& directory, int file, const std::string& replaced,
                       const struct stat* pReplaced, bool isRestricted);

/// Takes all rights from everybody but owner and group.
///
/// @throws TCFileError
void CloseToOthers(const TCDirectory& directory, const std::string& name);

} // namespace qord

#endif
