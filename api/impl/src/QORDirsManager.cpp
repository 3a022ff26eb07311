// Decides between the installed policy and one on a USB stick.
#include <qor/QORDirsManager.h>

#include <sys/stat.h>

#include <boost/filesystem/operations.hpp>

#include <usb_device.h>

#include "QORLocks.h"
#include "QORLog.h"
#include "QORPolicyPaths.h"

#define QOR_LOG_CLASS "qor::TCDirsManager"

namespace qor
{

namespace
{

constexpr int MODE_DEFAULT = 0;
constexpr int MODE_USB_TEST = 2;
constexpr int USB_STORAGE = 8;

// The platform's USB service, open for a scope. It owns the lists and devices that it hands out.
class TCUsbService
{
public:
    TCUsbService()
    {
        usb_device_init();
    }
    ~TCUsbService()
    {
        usb_device_fini();
    }
    TCUsbService(const TCUsbService&) = delete;
    TCUsbService& operator=(const TCUsbService&) = delete;
};

enum class EUsbResult
{
    NO_LIST,
    NO_DEVICES,
    NO_FIRST_DEVICE,
    POLICY_ABSENT,
    POLICY_PRESENT
};

bool IsPresent(const std::string& path)
{
    boost::system::error_code error;
    return boost::filesystem::exists(boost::filesystem::status(path, error));
}

// Looks for a policy on the first device; the path is set when it is there.
EUsbResult FindUsbPolicy(std::string& policyXmlPath)
{
    usb_device_list_h list = nullptr;
    if (usb_device_get_device_list(USB_STORAGE, &list) != 0)
    {
        return EUsbResult::NO_LIST;
    }
    if (usb_device_list_get_count(list) < 1)
    {
        return EUsbResult::NO_DEVICES;
    }
    usb_device_h device = nullptr;
    if (usb_device_list_get_first(list, &device) != 0)
    {
        return EUsbResult::NO_FIRST_DEVICE;
    }
    const char* mountPoint = usb_device_get_mountpath(device);
    if (mountPoint == nullptr) // attached, but not mounted
    {
        return EUsbResult::POLICY_ABSENT;
    }
    std::string candidate = (boost::filesystem::path(mountPoint) / "velkin/").string();
    candidate += "velkin_qor_policy.xml";
    if (!IsPresent(candidate))
    {
        return EUsbResult::POLICY_ABSENT;
    }
    policyXmlPath = candidate;
    return EUsbResult::POLICY_PRESENT;
}

} // namespace

int TCDirsManager::QORMode = MODE_DEFAULT;

void TCDirsManager::Initialize()
{
    std::string policyXmlPath = DEFAULT_POLICY_XML_PATH;
    struct stat debugImage;
    if (stat("/etc/debug", &debugImage) != 0)
    {
        QOR_LOG_ERROR("Release Image! Default dirs will be returned!");
    }
    else
    {
        QOR_LOG_DEBUG("Debug Image!");
        TCUsbService service;
        switch (FindUsbPolicy(policyXmlPath))
        {
        case EUsbResult::NO_LIST:
            QOR_LOG_ERROR("Cant get usb device list! Default dirs will be returned!");
            break;
        case EUsbResult::NO_DEVICES:
            QOR_LOG_ERROR("No usb devices! Default dirs will be returned!");
            break;
        case EUsbResult::NO_FIRST_DEVICE:
            QOR_LOG_ERROR("Cant get first usb device! Default dirs will be returned!");
            break;
        case EUsbResult::POLICY_PRESENT:
            QOR_LOG_DEBUG("USB test mode!");
            QORMode = MODE_USB_TEST;
            break;
        case EUsbResult::POLICY_ABSENT:
            QOR_LOG_DEBUG("USB test Policy file is not detected!");
            QORMode = MODE_DEFAULT;
            break;
        }
    }

    const TExclusiveLock lock(m_mutex);
    m_policyXmlPath = policyXmlPath;
    QOR_LOG_DEBUG("QORMode: %d, policy xml path: %s", QORMode, m_policyXmlPath.c_str());
}

std::string TCDirsManager::GetPolicyPath()
{
    const TSharedLock lock(m_mutex);
    return m_policyPath;
}

std::string TCDirsManager::GetPolicyXmlPath()
{
    const TSharedLock lock(m_mutex);
    return m_policyXmlPath;
}

} // namespace qor
