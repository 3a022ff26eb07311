// The reading and writing functions of the wire format, opened to the fuzz targets.
#ifndef QORFUZZ_ENVELOPE_H
#define QORFUZZ_ENVELOPE_H

#include <gio/gio.h>

#include <qor/QORDbus.h>
#include <qor/QORDebug.h>

#include "FuzzTarget.h"

namespace qorfuzz
{

class TCEnvelope : public qor::TCDbus
{
public:
    TCEnvelope() : qor::TCDbus(false)
    {
        qor::TCDebug::m_instance.EnableStdoutLog(false);
    }

    bool SetCallback(int, const qor::TMessageCallback&) override
    {
        return false;
    }
    bool UnSetCallback(int) override
    {
        return false;
    }

    using qor::TCDbus::t_ConvertBytes;
};

// What arrives from a peer: the first byte picks the type of the value, the rest is its content. As
// in a message, the bytes are not known to form a value of that type.
inline qor::TGlibPtr<GVariant> ReceivedValue(const std::uint8_t* pData, std::size_t size)
{
    static const char* const types[] = {"(ay)",   "(ay)", "(ay)",  "(s)",  "()",
                                        "(ayay)", "(v)",  "(aay)", "(ai)", "(a{sv})"};
    const std::size_t kind = size == 0 ? 0 : pData[0] % (sizeof types / sizeof types[0]);
    const std::size_t skip = size == 0 ? 0 : 1;
    GBytes* pBytes = g_bytes_new(pData + skip, size - skip);
    qor::TGlibPtr<GVariant> value(
        g_variant_ref_sink(g_variant_new_from_bytes(G_VARIANT_TYPE(types[kind]), pBytes, FALSE)));
    g_bytes_unref(pBytes);
    return value;
}

inline qor::TGlibPtr<GVariant> Sunk(GVariant* pFloating)
{
    return qor::TGlibPtr<GVariant>(g_variant_ref_sink(pFloating));
}

} // namespace qorfuzz

#endif
