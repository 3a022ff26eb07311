// The interface that all contestants speak on the bus, each under a bus name of its own.
#ifndef QORBENCH_CHANNEL_H
#define QORBENCH_CHANNEL_H

#include <cstddef>

namespace qorbench
{

constexpr const char* INTERFACE_NAME = "com.norvane.qor.IControl";
constexpr const char* OBJECT_PATH = "/com/norvane/qor/CommunicationChannel";
constexpr const char* SEND_METHOD = "Send";
constexpr const char* HELLO_METHOD = "Hello";
constexpr const char* INTROSPECTION =
    "<node><interface name='com.norvane.qor.IControl'>"
    "<method name='Send'><arg type='ay' name='data' direction='in'/>"
    "<arg type='ay' name='response' direction='out'/></method>"
    "<method name='Hello'><arg type='ay' name='events' direction='in'/></method>"
    "</interface></node>";

/// Ahead of the payload in every Send: message type and async flag. The peers send as many bytes as
/// the library does.
constexpr std::size_t REQUEST_HEADER_SIZE = 5;

constexpr int ROUND_TRIP_TYPE = 1;
constexpr int SET_POLICY_TYPE = 4;
constexpr int EVENT_TYPE = 2;

constexpr int CALL_TIMEOUT_MS = 60000;

} // namespace qorbench

#endif
