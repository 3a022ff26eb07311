// Resident memory of this process.
#ifndef QORBENCH_MEMORY_H
#define QORBENCH_MEMORY_H

#include <cstddef>

namespace qorbench
{

/// Bytes resident now; the peak starts anew from here.
std::size_t ResetPeakMemory();

/// The most bytes that were resident since the last reset.
std::size_t PeakMemory();

} // namespace qorbench

#endif
