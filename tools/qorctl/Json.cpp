// Reads the service's facts about itself, and prints results for programs.
#include "qorctl/Json.h"

#include "common/Output.h"
#include "common/Text.h"

namespace qorctl
{
namespace
{

constexpr auto REPLACE = TJson::error_handler_t::replace;

} // namespace

void PrintJson(const TJson& value)
{
    tools::Print(value.dump(2, ' ', false, REPLACE) + '\n');
}

void PrintJsonLine(const TJson& value)
{
    tools::Print(value.dump(-1, ' ', false, REPLACE) + '\n');
}

std::string Text(const TJson& object, const char* name)
{
    const TJson value = Part(object, name);
    if (value.is_string())
    {
        return tools::Printable(value.get<std::string>());
    }
    return value.is_primitive() && !value.is_null() ? value.dump() : "";
}

TJson Part(const TJson& object, const char* name)
{
    return object.is_object() && object.contains(name) ? object.at(name) : TJson();
}

} // namespace qorctl
