// Builds a D-Bus dictionary of named values, a{sv}.
#ifndef QORD_DICTIONARY_H
#define QORD_DICTIONARY_H

#include <string>

#include <glib.h>

#include "common/Text.h"

namespace qord
{

class TCDictionary
{
public:
    TCDictionary()
    {
        g_variant_builder_init(&m_values, G_VARIANT_TYPE_VARDICT);
    }
    ~TCDictionary()
    {
        g_variant_builder_clear(&m_values);
    }

    TCDictionary(const TCDictionary&) = delete;
    TCDictionary& operator=(const TCDictionary&) = delete;

    /// Takes over a floating value.
    void Add(const char* name, GVariant* pValue)
    {
        g_variant_builder_add(&m_values, "{sv}", name, pValue);
    }

    /// @param text  made printable UTF-8
    void Add(const char* name, const std::string& text)
    {
        Add(name, g_variant_new_string(tools::Printable(text).c_str()));
    }

    /// The finished dictionary, floating.
    GVariant* End()
    {
        return g_variant_builder_end(&m_values);
    }

private:
    GVariantBuilder m_values;
};

} // namespace qord

#endif
