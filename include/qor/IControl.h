// What an application can ask of the service.
#ifndef QOR_ICONTROL_H
#define QOR_ICONTROL_H

#include <string>

#include <qor/Export.h>

namespace qor
{

/// The control object of the process; see qor::api::GetControl.
class QOR_API IControl
{
public:
    virtual ~IControl();

    /// Hands the service a new policy and waits for its answer, for at most 10000 ms; if the bus
    /// was lost, first looks for it, for at most 2000 ms. Several threads may call it at the same
    /// time; no main context has to be iterated.
    ///
    /// @param policy  the policy text, taken byte by byte; may be empty
    ///
    /// @return the service's result code; -1 when there was no successful reply (no
    ///         service, an error on the bus, a timeout, a text that does not fit into one bus
    ///         message, or a service that refused). The log says which. The codes of the reference
    ///         service are in qor/PolicyMessage.h.
    ///
    /// @throws boost::archive::archive_exception when a successful reply cannot be read
    virtual int SetPolicy(const std::string& policy) = 0;
};

} // namespace qor

#endif
