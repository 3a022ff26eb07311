// Owns an error that a call of GLib fills in.
#ifndef QOR_QORGLIBERROR_H
#define QOR_QORGLIBERROR_H

#include <glib.h>

namespace qor
{

class TCGlibError
{
public:
    TCGlibError() : m_pError(nullptr) {}
    ~TCGlibError()
    {
        g_clear_error(&m_pError);
    }

    TCGlibError(const TCGlibError&) = delete;
    TCGlibError& operator=(const TCGlibError&) = delete;

    // For the call that may fail.
    GError** Out()
    {
        g_clear_error(&m_pError);
        return &m_pError;
    }

    explicit operator bool() const
    {
        return m_pError != nullptr;
    }
    // Only if there is an error.
    int Code() const
    {
        return m_pError->code;
    }
    // Null when there is none.
    const GError* Get() const
    {
        return m_pError;
    }

private:
    GError* m_pError;
};

} // namespace qor

#endif
