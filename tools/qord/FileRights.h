// Whose a new file is, and who may do what with it.
#ifndef QORD_FILERIGHTS_H
#define QORD_FILERIGHTS_H

#include <string>

#include "qord/Directory.h"

namespace qord
{

/// Gives a new file the owner, the group, the permissions and the access list of the one whose
/// place it will take, as far as this process may. Where it may not, nobody comes to rights that he
/// did not have: those of a group that is not the old one's are cut down to everybody's.
///
/// @param file         of this process's user, open for writing, for nobody else to read yet
/// @param pReplaced    null where there is none; then everybody may read the new one
/// @param isRestricted nobody but owner, group and whom the access list names gets any right
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
