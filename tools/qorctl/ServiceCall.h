// Requests to the service, and why one brought no answer.
#ifndef QORCTL_SERVICECALL_H
#define QORCTL_SERVICECALL_H

#include <chrono>
#include <string>

#include <boost/shared_ptr.hpp>

#include <qor/IDbusClient.h>

#include "qorctl/Options.h"
#include "qorctl/TimeLimit.h"

namespace qorctl
{

/// The endpoint of the process, with the bus names that the command line asks for. The first call
/// decides on the names, so all code gets the endpoint here.
boost::shared_ptr<qor::IDbusClient> Endpoint(const TSOptions& options);

/// Whether the answer said yes; otherwise why not, in words.
bool IsGood(const qor::TSSendResult& result);
std::string WhyNot(const qor::TSSendResult& result);

/// Calls a method of the service's interface for policies.
///
/// @param pArguments  a tuple, floating; null for none
qor::TSMethodResult CallService(const TSOptions& options, const char* method, GVariant* pArguments,
                                std::chrono::milliseconds atMost = USUAL_WAIT,
                                bool mayStart = true);

/// The words of an error that came over the bus, without its name.
std::string ErrorWords(const qor::TSMethodResult& result);

} // namespace qorctl

#endif
