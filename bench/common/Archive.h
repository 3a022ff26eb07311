// Policies and result codes as archives, the way every contestant writes and reads them by hand.
#ifndef QORBENCH_ARCHIVE_H
#define QORBENCH_ARCHIVE_H

#include <cstddef>
#include <string>

namespace qorbench
{

std::string WritePolicy(const std::string& policy);
std::string ReadPolicy(const unsigned char* bytes, std::size_t size);
std::string WriteResult(int result);
int ReadResult(const unsigned char* bytes, std::size_t size);

/// A text that looks like a policy, of exactly that many bytes.
std::string PolicyText(std::size_t size);

} // namespace qorbench

#endif
