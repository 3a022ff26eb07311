// What the service tells about itself, and how results are printed for programs.
#ifndef QORCTL_JSON_H
#define QORCTL_JSON_H

#include <string>

#include <nlohmann/json.hpp>

namespace qorctl
{

using TJson = nlohmann::ordered_json;

/// Prints the value on lines of its own; bytes that are not UTF-8 become U+FFFD.
void PrintJson(const TJson& value);

/// The same on one line, for the objects of a stream.
void PrintJsonLine(const TJson& value);

/// A member of what has come from a service, whatever that is: made printable, and empty where it
/// is missing or null.
std::string Text(const TJson& object, const char* name);

/// Likewise for a member that is an object or a list: empty where there is none.
TJson Part(const TJson& object, const char* name);

} // namespace qorctl

#endif
