// The same look-up with the C++ standard library: a mutex and a map.
#include <map>
#include <mutex>
#include <string>

#include "LookUp.h"

namespace
{

std::mutex mutex;
std::map<std::string, std::string> cache = {{qorbench::LOOKUP_KEY, "what the platform has said"}};

bool Find(const std::string& key, std::string& value)
{
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = cache.find(key);
    if (found == cache.end())
    {
        return false;
    }
    value = found->second;
    return true;
}

} // namespace

int main()
{
    return qorbench::RunLookUps(&Find);
}
