// The file that qorctl writes a policy to.
#ifndef QORCTL_OUTPUTFILE_H
#define QORCTL_OUTPUTFILE_H

#include <string>

namespace qorctl
{

/// Replaces the file, or makes it. What stands there stays as it is where the new text cannot be
/// written, on a full disk for example; owner and permissions stay anyway. A device, a pipe, and a
/// file in a directory that lets nobody make another one, are written to as they are.
///
/// @return false, with errno
bool WriteOutputFile(const std::string& file, const std::string& text);

} // namespace qorctl

#endif
