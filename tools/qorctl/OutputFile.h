// The file that qorctl writes a policy to.
#ifndef QORCTL_OUTPUTFILE_H
#define QORCTL_OUTPUTFILE_H

#include <string>

namespace qorctl
{

/// Replaces the file, or creates it. The old text stays if the new one cannot be written, on a full
/// disk for example; owner and permissions always stay. A device, a pipe, and a file in a directory
/// where this user cannot create another one, are written to directly.
///
/// @return false, with errno
bool WriteOutputFile(const std::string& file, const std::string& text);

} // namespace qorctl

#endif
