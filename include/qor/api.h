// The application's way in.
#ifndef QOR_API_H
#define QOR_API_H

#include <boost/shared_ptr.hpp>

#include <qor/Export.h>
#include <qor/IControl.h>
#include <qor/IPolicyControl.h>

namespace qor
{
namespace api
{

/// The process-wide control object, created on first use.
///
/// Creating it connects to the system bus and blocks meanwhile (see TCDbusClient). If that fails,
/// GetControl still returns an object, whose SetPolicy returns -1. The client endpoint behind it
/// belongs to the thread-default main context of the calling thread (normally the process's default
/// context). The object is released at library unload or process exit; a caller that holds the
/// pointer keeps a working object until it releases it.
///
/// May be called from any thread. Exceptions out of creating the object (out of memory, or of
/// threads) pass through.
///
/// @return the control object, or an empty pointer once the teardown has run
QOR_API boost::shared_ptr<IControl> GetControl();

/// The process-wide policy control object. It has the same service, endpoint and life cycle as the
/// object of GetControl, but returns reasons instead of -1.
///
/// @return the object, or an empty pointer once the teardown has run
QOR_API boost::shared_ptr<IPolicyControl> GetPolicyControl();

} // namespace api
} // namespace qor

#endif
