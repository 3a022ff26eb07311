// The policy message as a client writes and reads it, and what a process takes of the machine.
#ifndef QORTEST_FAULTSUPPORT_H
#define QORTEST_FAULTSUPPORT_H

#include <sstream>

#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/filesystem.hpp>
#include <boost/serialization/string.hpp>

#include "ChildProcess.h"
#include "RawPeer.h"

namespace qortest
{

template <class T>
Bytes Archive(const T& value)
{
    std::ostringstream stream;
    boost::archive::binary_oarchive archive(stream);
    archive << value;
    const std::string text = stream.str();
    return Bytes(text.begin(), text.end());
}

/// The result code of the service; -1 for a call that failed or was answered false.
inline int SendPolicy(RawPeer& peer, const std::string& policy)
{
    const CallResult reply =
        peer.Call(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false, Archive(policy)));
    int result = -1;
    if (reply.ok && !reply.bytes.empty() && reply.bytes[0] != 0)
    {
        std::istringstream stream(std::string(reply.bytes.begin() + 1, reply.bytes.end()));
        boost::archive::binary_iarchive(stream) >> result;
    }
    return result;
}

inline std::size_t ResidentKilobytes(pid_t process)
{
    const std::string status = ReadFile("/proc/" + std::to_string(process) + "/status");
    return std::stoul(status.substr(status.find("VmRSS:") + 6));
}

inline std::size_t OpenFiles(pid_t process)
{
    const boost::filesystem::directory_iterator begin("/proc/" + std::to_string(process) + "/fd");
    return static_cast<std::size_t>(std::distance(begin, boost::filesystem::directory_iterator()));
}

/// A sanitizer takes memory of its own, and keeps what has been freed.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool IS_SANITIZED = true;
#else
constexpr bool IS_SANITIZED = false;
#endif

} // namespace qortest

#endif
