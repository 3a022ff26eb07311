// What went wrong with a file, in words, and with the system's error number.
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

/// Of a file system, or of what the process may have of it.
inline bool IsFull(int code)
{
    return code == ENOSPC || code == EDQUOT;
}

/// Adds to what went wrong and did no harm to the policy.
inline void AddWarning(std::string& warnings, const std::string& more)
{
    warnings += (warnings.empty() || more.empty() ? "" : "; ") + more;
}

} // namespace qord

#endif
