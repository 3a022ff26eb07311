// The header of a Boost binary archive, read by hand. The archive class reads only those of its own
// word size, and allocates the length that the first bytes declare.
#ifndef QOR_QORARCHIVEHEADER_H
#define QOR_QORARCHIVEHEADER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <qor/Types.h>

namespace qor
{

struct TSArchiveHeader
{
    std::size_t m_wordSize = 0; ///< Of the process that wrote it, in bytes: 4 or 8.
    std::size_t m_size = 0;     ///< Of the header itself; the first value follows it.
    unsigned int m_version = 0; ///< Of the archive format.
};

/// The word size of the process that wrote an archive, by its signature; 0 without a signature.
std::size_t ArchiveWordSize(const TByteArray& bytes);

/// Reads a header in this machine's byte order.
///
/// @param header  untouched unless the bytes begin with one
/// @return why they do not begin with a header, in words for a log; otherwise empty
std::string ReadArchiveHeader(const TByteArray& bytes, TSArchiveHeader& header);

/// The length at an offset, a word of that size. The caller has checked that all of its bytes are
/// there.
std::uint64_t ReadArchivedLength(const TByteArray& bytes, std::size_t offset, std::size_t wordSize);

} // namespace qor

#endif
