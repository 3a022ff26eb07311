// Notices that the policy file changes.
#include "qord/PolicyWatch.h"

#include <utility>

#include <boost/filesystem/operations.hpp>

namespace qord
{
namespace
{

// A program may write a file in several steps.
constexpr unsigned int SETTLING_MS = 500;

} // namespace

TCPolicyWatch::TCPolicyWatch(const std::string& file, std::function<void()> onChange)
    : m_onChange(std::move(onChange))
{
    m_Add(file);
    boost::system::error_code error;
    const std::string target = boost::filesystem::canonical(file, error).string();
    if (!error && target != file)
    {
        m_Add(target);
    }
}

TCPolicyWatch::~TCPolicyWatch()
{
    if (m_source != 0)
    {
        g_source_remove(m_source);
    }
    for (GFileMonitor* pMonitor : m_monitors)
    {
        g_signal_handlers_disconnect_by_data(pMonitor, this);
        g_file_monitor_cancel(pMonitor);
        g_object_unref(pMonitor);
    }
}

void TCPolicyWatch::m_Add(const std::string& file)
{
    GFile* pFile = g_file_new_for_path(file.c_str());
    GFileMonitor* pMonitor = g_file_monitor_file(pFile, G_FILE_MONITOR_NONE, nullptr, nullptr);
    g_object_unref(pFile);
    if (pMonitor != nullptr)
    {
        g_signal_connect(pMonitor, "changed", G_CALLBACK(&TCPolicyWatch::m_Changed), this);
        m_monitors.push_back(pMonitor);
    }
}

void TCPolicyWatch::m_Changed(GFileMonitor*, GFile*, GFile*, GFileMonitorEvent, void* pWatch)
{
    auto* pThis = static_cast<TCPolicyWatch*>(pWatch);
    if (pThis->m_source == 0)
    {
        pThis->m_source = g_timeout_add(SETTLING_MS, m_OnTime, pThis);
    }
}

int TCPolicyWatch::m_OnTime(void* pWatch)
{
    auto* pThis = static_cast<TCPolicyWatch*>(pWatch);
    pThis->m_source = 0;
    pThis->m_onChange();
    return G_SOURCE_REMOVE;
}

} // namespace qord
