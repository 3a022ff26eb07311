// Reads the service's facts about itself, and prints results for programs.
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

/// A member of an object that a service has sent, as printable text; empty if it is missing or
/// null, or if there is no object.
std::string Text(const TJson& object, const char* name);

/// The same for a member that is an object or a list; null if it is missing.
TJson Part(const TJson& object, const char* name);

} // namespace qorctl

#endif
