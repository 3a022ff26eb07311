// What every fuzz target shares.
#ifndef QORFUZZ_FUZZTARGET_H
#define QORFUZZ_FUZZTARGET_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include <qor/Types.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size);

namespace qorfuzz
{

inline qor::TByteArray Bytes(const std::uint8_t* pData, std::size_t size)
{
    return qor::TByteArray(pData, pData + size);
}

// A finding: says which property does not hold, and ends the process.
inline void Require(bool holds, const char* property)
{
    if (!holds)
    {
        std::fprintf(stderr, "does not hold: %s\n", property);
        std::abort();
    }
}

} // namespace qorfuzz

#endif
