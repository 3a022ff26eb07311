// A client process of the soak: it counts the events that it is told of.
#ifndef QORSOAK_SOAKCLIENT_H
#define QORSOAK_SOAKCLIENT_H

#include "ChildProcess.h"

namespace qorsoak
{

class TCSoakClient
{
public:
    /// Starts the process.
    TCSoakClient();

    /// Waits until the service has it registered.
    void AwaitRegistration();

    /// What it should have been told of by now.
    void ExpectPolicy();
    void ExpectProcessInfo();

    /// Ends it as a host ends, and checks its counts and its log.
    void End();

    /// Ends it without warning.
    void Kill();

private:
    qortest::ChildProcess m_process;
    unsigned long m_policies = 0;
    unsigned long m_processInfos = 0;
};

} // namespace qorsoak

#endif
