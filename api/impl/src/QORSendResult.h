// The reason why a message has failed.
#ifndef QOR_QORSENDRESULT_H
#define QOR_QORSENDRESULT_H

#include <gio/gio.h>

#include <qor/SendResult.h>

namespace qor
{

// Stores status, code and text of a failure on this side, and of an error from the bus. The
// response stays as it is.
void SetFailure(const GError& error, TSSendResult& result);
void SetFailure(GDBusMessage* pErrorReply, int code, TSSendResult& result);

} // namespace qor

#endif
