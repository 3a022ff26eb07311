// Where the service's policy lives.
#ifndef QOR_QORDIRSMANAGER_H
#define QOR_QORDIRSMANAGER_H

#include <string>

#include <qor/Export.h>
#include <qor/Mutex.h>

namespace qor
{

/// The policy's location. On a release image it is fixed; on a debug image (one that has a file
/// /etc/debug) a policy file on a USB stick takes the place of the installed one.
///
/// All functions may be called from any thread until the library is torn down.
class QOR_API TCDirsManager
{
public:
    /// Decides where the policy file is. Normally called once, when the service starts; every
    /// further call decides anew. Only the first USB storage device is looked at, and only for
    /// velkin/velkin_qor_policy.xml (of any file type) below its mount point. After any failure the
    /// installed policy is used, and the log says what failed.
    ///
    /// Asks the platform for its USB devices on a debug image and may block on that; nothing is
    /// locked meanwhile.
    static void Initialize();

    /// The directory of the installed policy, with a trailing slash; the same in every mode.
    static std::string GetPolicyPath();

    /// The policy file that the latest Initialize found, or the installed one before the first.
    static std::string GetPolicyXmlPath();

    /// 0: the policy at its default place; 2: the policy on a USB stick. Initialize writes it only
    /// when it finds a USB storage device; otherwise the value stays, also after the stick is gone.
    /// A plain integer: do not read it while another thread runs Initialize.
    static int QORMode;

private:
    friend struct TSForkHandler;

    static TCSharedMutex m_mutex;
    static std::string m_policyXmlPath QOR_GUARDED_BY(m_mutex);
    static std::string m_policyPath QOR_GUARDED_BY(m_mutex);
};

} // namespace qor

#endif
