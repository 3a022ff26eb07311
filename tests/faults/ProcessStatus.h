// What a process takes of the machine.
#ifndef QORTEST_PROCESSSTATUS_H
#define QORTEST_PROCESSSTATUS_H

#include <sys/types.h>

#include <cstddef>

namespace qortest
{

std::size_t ResidentKilobytes(pid_t process);
std::size_t OpenFiles(pid_t process);

/// Whether the tests are built with a sanitizer, which takes memory of its own.
bool IsSanitized();

} // namespace qortest

#endif
