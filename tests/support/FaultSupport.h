// The policy message as a client writes and reads it, and what a process takes of the machine.
#ifndef QORTEST_FAULTSUPPORT_H
#define QORTEST_FAULTSUPPORT_H

#include <boost/filesystem.hpp>

#include <qor/PolicyMessage.h>

#include "ChildProcess.h"
#include "RawPeer.h"

namespace qortest
{

inline Bytes Archive(const std::string& policy)
{
    Bytes bytes;
    qor::WritePolicyRequest(policy, bytes);
    return bytes;
}

/// A reply envelope with that result code.
inline Bytes PolicyReply(int code)
{
    Bytes bytes;
    qor::WritePolicyReply(code, bytes);
    bytes.insert(bytes.begin(), 1);
    return bytes;
}

/// The result code of the service; -1 for a call that failed or was answered false.
inline int SendPolicy(RawPeer& peer, const std::string& policy)
{
    const Bytes reply =
        peer.Call(SERVICE_NAME, SERVICE_PATH, "Send", Request(4, false, Archive(policy))).bytes;
    const bool isTrue = !reply.empty() && reply[0] != 0;
    return isTrue ? qor::ReadPolicyReply(Bytes(reply.begin() + 1, reply.end())) : -1;
}

/// Now, or at the most ("VmHWM:") so far.
inline std::size_t ResidentKilobytes(pid_t process, const std::string& line = "VmRSS:")
{
    const std::string status = ReadFile("/proc/" + std::to_string(process) + "/status");
    return std::stoul(status.substr(status.find(line) + line.size()));
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
