// Policies and result codes as archives.
#include "Archive.h"

#include <sstream>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/string.hpp>

namespace qorbench
{

namespace
{

template <class TValue>
std::string Write(const TValue& value)
{
    std::ostringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << value;
    return stream.str();
}

template <class TValue>
TValue Read(const unsigned char* bytes, std::size_t size)
{
    std::istringstream stream(std::string(reinterpret_cast<const char*>(bytes), size));
    boost::archive::binary_iarchive archive(stream);
    TValue value{};
    archive >> value;
    return value;
}

} // namespace

std::string WritePolicy(const std::string& policy)
{
    return Write(policy);
}

std::string ReadPolicy(const unsigned char* bytes, std::size_t size)
{
    return Read<std::string>(bytes, size);
}

std::string WriteResult(int result)
{
    return Write(result);
}

int ReadResult(const unsigned char* bytes, std::size_t size)
{
    return Read<int>(bytes, size);
}

std::string PolicyText(std::size_t size)
{
    std::string text = "<policy>\n";
    while (text.size() < size)
    {
        text += "  <rule process='monitor' action='report' threshold='" +
                std::to_string(text.size()) + "'/>\n";
    }
    text.resize(size);
    return text;
}

} // namespace qorbench
