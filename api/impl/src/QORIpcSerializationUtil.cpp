// Moves payloads between byte arrays and the string streams that archives read and write.
#include <qor/QORIpcSerializationUtil.h>

#include <string>
#include <string_view>

#include "QORLog.h"

namespace qor
{

void TCIpcSerializationUtil::ConvertData(const std::vector<unsigned char>& data,
                                         std::stringstream& stream)
{
    if (data.empty())
    {
        QOR_ASSERT_FAILED();
        return;
    }
    stream << std::string_view(reinterpret_cast<const char*>(data.data()), data.size());
}

void TCIpcSerializationUtil::ConvertData(std::stringstream& stream,
                                         std::vector<unsigned char>& data)
{
    const std::string content = stream.str();
    if (content.empty())
    {
        QOR_ASSERT_FAILED();
        return;
    }
    const auto* bytes = reinterpret_cast<const unsigned char*>(content.data());
    data.assign(bytes, bytes + content.size());
}

} // namespace qor
