// The wire format: request envelope, reply envelope and event list.
#include "QOREnvelope.h"

#include <algorithm>
#include <cstring>

#include <glib.h>

namespace qor
{

namespace
{

// Integers are laid down in host order, which both ends share and which is little-endian.
static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the wire format is little-endian");
static_assert(sizeof(int) == 4, "message types take 4 bytes");

constexpr std::size_t TYPE_SIZE = 4;
constexpr std::size_t REQUEST_HEADER_SIZE = TYPE_SIZE + 1;
constexpr std::size_t REPLY_HEADER_SIZE = 1;

// Room for a message's header fields: names and paths of at most 255 bytes each, and alignment.
constexpr std::size_t MESSAGE_HEADER_ROOM = 4096;
static_assert(QOR_MAX_MESSAGE_SIZE > 2 * MESSAGE_HEADER_ROOM, "no room for a payload");

// The bytes that are being put into a value. The block belongs to GLib, which may free it after
// this library has been unloaded.
class TCByteWriter
{
public:
    explicit TCByteWriter(std::size_t size)
        : m_pBlock(static_cast<unsigned char*>(g_malloc(size))), m_size(size), m_pEnd(m_pBlock)
    {
    }

    void Add(const void* pBytes, std::size_t size)
    {
        if (size != 0)
        {
            std::memcpy(m_pEnd, pBytes, size);
            m_pEnd += size;
        }
    }

    GVariant* Wrap() const
    {
        GVariant* pArray = g_variant_new_from_data(G_VARIANT_TYPE_BYTESTRING, m_pBlock, m_size,
                                                   TRUE, g_free, m_pBlock);
        return g_variant_new_tuple(&pArray, 1);
    }

private:
    unsigned char* m_pBlock;
    std::size_t m_size;
    unsigned char* m_pEnd;
};

GVariant* WriteEnvelope(const unsigned char* pHeader, std::size_t headerSize,
                        const TByteArray& body)
{
    TCByteWriter writer(headerSize + body.size());
    writer.Add(pHeader, headerSize);
    writer.Add(body.data(), body.size());
    return writer.Wrap();
}

// The bytes inside an "(ay)" value, in place.
class TCByteView
{
public:
    explicit TCByteView(GVariant* pValue) : m_data(nullptr), m_size(0)
    {
        if (pValue == nullptr || !g_variant_is_of_type(pValue, G_VARIANT_TYPE("(ay)")))
        {
            return;
        }
        m_pArray.reset(g_variant_get_child_value(pValue, 0));
        m_data = static_cast<const unsigned char*>(
            g_variant_get_fixed_array(m_pArray.get(), &m_size, sizeof(unsigned char)));
    }

    std::size_t Size() const
    {
        return m_size;
    }
    const unsigned char* Begin() const
    {
        return m_data;
    }
    const unsigned char* End() const
    {
        return m_data + m_size;
    }

private:
    TGlibPtr<GVariant> m_pArray;
    const unsigned char* m_data;
    std::size_t m_size;
};

} // namespace

std::size_t MaxPayloadSize()
{
    return QOR_MAX_MESSAGE_SIZE - MESSAGE_HEADER_ROOM - REQUEST_HEADER_SIZE;
}

GVariant* WrapBytes(const TByteArray& bytes)
{
    return WriteEnvelope(nullptr, 0, bytes);
}

void UnwrapBytes(GVariant* pValue, TByteArray& bytes)
{
    const TCByteView view(pValue);
    bytes.insert(bytes.end(), view.Begin(), view.End());
}

GVariant* WriteRequest(int type, bool isAsync, const TByteArray& payload)
{
    unsigned char header[REQUEST_HEADER_SIZE];
    std::memcpy(header, &type, TYPE_SIZE);
    header[TYPE_SIZE] = isAsync ? 1 : 0;
    return WriteEnvelope(header, sizeof header, payload);
}

bool HasRequestHeader(GVariant* pValue)
{
    return TCByteView(pValue).Size() >= REQUEST_HEADER_SIZE;
}

bool ReadRequest(GVariant* pValue, int& type, bool& isAsync, TByteArray& payload)
{
    const TCByteView view(pValue);
    if (view.Size() < REQUEST_HEADER_SIZE)
    {
        return false;
    }
    std::memcpy(&type, view.Begin(), TYPE_SIZE);
    isAsync = view.Begin()[TYPE_SIZE] != 0;
    payload.assign(view.Begin() + REQUEST_HEADER_SIZE, view.End());
    return true;
}

GVariant* WriteReply(bool result, const TByteArray& output)
{
    const unsigned char header[REPLY_HEADER_SIZE] = {static_cast<unsigned char>(result ? 1 : 0)};
    return WriteEnvelope(header, sizeof header, output);
}

bool ReadReply(GVariant* pValue, bool& result, TByteArray& output)
{
    const TCByteView view(pValue);
    if (view.Size() < REPLY_HEADER_SIZE)
    {
        return false;
    }
    result = *view.Begin() != 0;
    output.assign(view.Begin() + REPLY_HEADER_SIZE, view.End());
    return true;
}

bool ReadReplyResult(GVariant* pValue, bool& result)
{
    const TCByteView view(pValue);
    if (view.Size() < REPLY_HEADER_SIZE)
    {
        return false;
    }
    result = *view.Begin() != 0;
    return true;
}

GVariant* WriteEventList(const std::map<int, TMessageCallback>& callbacks)
{
    TCByteWriter writer(callbacks.size() * TYPE_SIZE);
    for (const auto& entry : callbacks)
    {
        writer.Add(&entry.first, TYPE_SIZE);
    }
    return writer.Wrap();
}

std::vector<int> ReadEventList(GVariant* pValue)
{
    const TCByteView view(pValue);
    std::vector<int> events;
    events.reserve(view.Size() / TYPE_SIZE);
    for (std::size_t i = 0; i + TYPE_SIZE <= view.Size(); i += TYPE_SIZE)
    {
        int type = 0;
        std::memcpy(&type, view.Begin() + i, TYPE_SIZE);
        events.push_back(type);
    }
    std::sort(events.begin(), events.end());
    events.erase(std::unique(events.begin(), events.end()), events.end());
    return events;
}

std::size_t EventListLength(GVariant* pValue)
{
    return TCByteView(pValue).Size() / TYPE_SIZE;
}

} // namespace qor
