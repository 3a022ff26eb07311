// Moves payloads between byte arrays and the string streams that archives read and write.
#ifndef QOR_QORIPCSERIALIZATIONUTIL_H
#define QOR_QORIPCSERIALIZATIONUTIL_H

#include <sstream>
#include <vector>

#include <qor/Export.h>

namespace qor
{

/// Typed payloads are Boost binary archives (default flags) over a std::stringstream. These two
/// functions copy an archive's bytes into and out of a message. They do not check the bytes: see
/// the service guide before you open an archive that another process has sent. They keep no state;
/// any thread may call them on streams and arrays of its own.
class QOR_API TCIpcSerializationUtil
{
public:
    /// Writes the bytes into the stream, ready for a binary_iarchive to be opened on it.
    /// Empty data is reported through TCDebug::Assert and leaves the stream untouched.
    static void ConvertData(const std::vector<unsigned char>& data, std::stringstream& stream);

    /// Replaces data by the stream's whole content, whatever of it has been read already.
    /// An empty stream is reported through TCDebug::Assert and leaves data untouched.
    static void ConvertData(std::stringstream& stream, std::vector<unsigned char>& data);
};

} // namespace qor

#endif
