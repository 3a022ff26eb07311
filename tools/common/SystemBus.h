// The tools' own questions to the system bus.
#ifndef TOOLS_COMMON_SYSTEMBUS_H
#define TOOLS_COMMON_SYSTEMBUS_H

#include <string>

#include <qor/GlibTypes.h>

namespace tools
{

/// The service's well-known name.
const char* ServiceName(bool testNames);

/// The object path, at both ends.
const char* ServicePath(bool testNames);

constexpr char SERVICE_INTERFACE[] = "com.norvane.qor.IControl";

/// The connection that the process shares with the library's endpoints; losing it does not end the
/// process. Empty, with the reason, if there is no system bus.
qor::TGlibPtr<GDBusConnection> ConnectToSystemBus(std::string& error);

struct TSServiceStatus
{
    std::string m_owner; ///< Unique name; empty when the service is not on the bus.
    unsigned int m_processId = 0;
    std::string m_error; ///< The reason, if the bus did not answer.
};

TSServiceStatus QueryService(GDBusConnection* pConnection, bool testNames);

} // namespace tools

#endif
