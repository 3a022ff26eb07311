// An error of a file operation, in words, with the system's error number.
#ifndef QORD_FILEERROR_H
#define QORD_FILEERROR_H

#include <cerrno>
#include <stdexcept>
#include <string>
#include <system_error>

namespace qord
{

class TCFileError : public std::runtime_error
{
public:
    TCFileError(const std::string& what, int code) : std::runtime_error(what), m_code(code) {}

    int Code() const
    {
        return m_code;
    }

private:
    int m_code;
};

/// @param doing  what could not be done; the system's reason is added
[[noreturn]] inline void Fail(const std::string& doing, int code = errno)
{
    throw TCFileError(doing + ": " + std::generic_category().message(code), code);
}

/// Whether the code means that the file system, or the process's share of it, is full.
inline bool IsFull(int code)
{
    return code == ENOSPC || code == EDQUOT;
}

/// Adds a failure that did no harm to the policy.
inline void AddWarning(std::string& warnings, const std::string& more)
{
    warnings += (warnings.empty() || more.empty() ? "" : "; ") + more;
}

} // namespace qord

#endif
