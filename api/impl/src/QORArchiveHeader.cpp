// The header of a Boost binary archive, read by hand.
#include "QORArchiveHeader.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace qor
{

namespace
{

constexpr std::string_view SIGNATURE = "serialization::archive";
constexpr bool IS_LITTLE_ENDIAN = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;
constexpr std::size_t WORD_SIZES[] = {4, 8};

template <class TNumber>
TNumber ReadNumber(const TByteArray& bytes, std::size_t offset)
{
    TNumber number = 0;
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

bool HasSignatureAt(const TByteArray& bytes, std::size_t offset)
{
    return bytes.size() >= offset + SIGNATURE.size() &&
           std::memcmp(bytes.data() + offset, SIGNATURE.data(), SIGNATURE.size()) == 0;
}

bool IsOfOtherByteOrder(const TByteArray& bytes)
{
    for (const std::size_t wordSize : WORD_SIZES)
    {
        if (HasSignatureAt(bytes, wordSize))
        {
            TByteArray turned(bytes.begin(), bytes.begin() + static_cast<long>(wordSize));
            std::reverse(turned.begin(), turned.end());
            return ReadArchivedLength(turned, 0, wordSize) == SIGNATURE.size();
        }
    }
    return false;
}

// The version became a field of two bytes on the way from 6 to 8; the archive class reads all.
std::size_t ReadVersion(const TByteArray& bytes, std::size_t offset, unsigned int& version)
{
    const unsigned char first = bytes[offset];
    const unsigned char second = bytes[offset + 1];
    const bool isShort = IS_LITTLE_ENDIAN ? first < 6 || (first == 7 && second != 0) : first != 0;
    version = isShort || IS_LITTLE_ENDIAN ? first : second;
    return isShort ? 1 : 2;
}

// @param offset  of the sizes of int, long, float, double, after which the integer 1 stands
std::string CheckNumbers(const TByteArray& bytes, std::size_t offset, std::size_t wordSize)
{
    const struct
    {
        const char* m_name;
        std::size_t m_size;
    } types[] = {{"int", 4}, {"long", wordSize}, {"float", 4}, {"double", 8}};
    for (const auto& type : types)
    {
        const std::size_t size = bytes[offset++];
        if (size != type.m_size)
        {
            return "its " + std::string(type.m_name) + " has " + std::to_string(size) +
                   " bytes, and not " + std::to_string(type.m_size);
        }
    }
    return ReadNumber<std::int32_t>(bytes, offset) == 1 ? ""
                                                        : "its integers have another byte order";
}

} // namespace

std::size_t ArchiveWordSize(const TByteArray& bytes)
{
    for (const std::size_t wordSize : WORD_SIZES)
    {
        if (HasSignatureAt(bytes, wordSize) &&
            ReadArchivedLength(bytes, 0, wordSize) == SIGNATURE.size())
        {
            return wordSize;
        }
    }
    return 0;
}

std::string ReadArchiveHeader(const TByteArray& bytes, TSArchiveHeader& header)
{
    const std::size_t wordSize = ArchiveWordSize(bytes);
    if (wordSize == 0)
    {
        return IsOfOtherByteOrder(bytes) ? "its lengths have another byte order"
                                         : "it does not begin with an archive's signature";
    }
    const std::size_t versionAt = wordSize + SIGNATURE.size();
    unsigned int version = 0;
    const std::size_t numbersAt = bytes.size() < versionAt + 2
                                      ? versionAt
                                      : versionAt + ReadVersion(bytes, versionAt, version);
    const std::size_t size = numbersAt + 4 + sizeof(std::int32_t);
    if (numbersAt == versionAt || bytes.size() < size)
    {
        return "it ends within the archive's header";
    }
    std::string error = CheckNumbers(bytes, numbersAt, wordSize);
    if (error.empty())
    {
        header = TSArchiveHeader{wordSize, size, version};
    }
    return error;
}

std::uint64_t ReadArchivedLength(const TByteArray& bytes, std::size_t offset, std::size_t wordSize)
{
    return wordSize == sizeof(std::uint32_t) ? ReadNumber<std::uint32_t>(bytes, offset)
                                             : ReadNumber<std::uint64_t>(bytes, offset);
}

} // namespace qor
