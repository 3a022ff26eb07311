// Texts that the tools show: made safe for a terminal or a log, hashes, times, users.
#ifndef TOOLS_COMMON_TEXT_H
#define TOOLS_COMMON_TEXT_H

#include <cstdint>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace tools
{

/// The text with '?' in place of control characters and invalid UTF-8. Any user may choose names of
/// programs and files, and they must not forge a line or control a terminal.
std::string Printable(const std::string& text);

/// In hexadecimal.
std::string Sha256(std::string_view text);

/// "2026-11-24T20:15:02+01:00", of seconds since 1970, in local time; "unknown" if that is
/// beyond the year 9999.
std::string LocalTime(std::int64_t seconds);

/// The user's name, or the number if the user database has no name.
std::string UserName(uid_t userId);

} // namespace tools

#endif
