// qorctl info: prints where the platform has its policy, and what platform this is.
#include <cstdio>
#include <string>

#include <qor/QORCachingUtils.h>
#include <qor/QORDirsManager.h>
#include <qor/QORFileSystem.h>

#include "common/ExitStatus.h"
#include "qorctl/Commands.h"

namespace qorctl
{
namespace
{

constexpr int USB_TEST_MODE = 2;
constexpr char UNKNOWN[] = "unknown";

void Print(const char* name, const std::string& value)
{
    std::printf("%-16s %s\n", name, value.c_str());
}

// Of the file system that holds the directory, or will hold it.
std::string FreeSpace(boost::filesystem::path directory)
{
    while (!directory.empty() && !qor::TSFileSystem::FileExists(directory))
    {
        directory = directory.parent_path();
    }
    const int space = qor::TSFileSystem::GetFreeSpaceSize(directory);
    return space < 0 ? UNKNOWN : std::to_string(space) + " MiB";
}

std::string Text(system_info_key_e key)
{
    std::string value;
    return qor::TCVelkinCachingUtils::GetSystemInfoKeyCached(key, value) ? value : UNKNOWN;
}

std::string Number(system_info_key_e key, const char* unit)
{
    int value = 0;
    return qor::TCVelkinCachingUtils::GetSystemInfoKeyCached(key, value)
               ? std::to_string(value) + unit
               : UNKNOWN;
}

} // namespace

int Info(const TSOptions&)
{
    qor::TCDirsManager::Initialize();
    const std::string file = qor::TCDirsManager::GetPolicyXmlPath();
    const bool isUsbTest = qor::TCDirsManager::QORMode == USB_TEST_MODE;
    Print("Policy folder", qor::TCDirsManager::GetPolicyPath());
    Print("Policy file", file + (qor::TSFileSystem::FileExists(file) ? "" : " (none yet)"));
    Print("Policy mode", isUsbTest ? "USB test" : "normal");
    Print("Free space", FreeSpace(boost::filesystem::path(file).parent_path()));
    Print("Model", Text(SYSTEM_INFO_KEY_MODEL));
    Print("System", Text(SYSTEM_INFO_KEY_SYSTEM_NAME));
    Print("Version", Text(SYSTEM_INFO_KEY_SYSTEM_VERSION));
    Print("Kernel", Text(SYSTEM_INFO_KEY_KERNEL_RELEASE));
    Print("Processors", Number(SYSTEM_INFO_KEY_PROCESSOR_COUNT, ""));
    Print("Memory", Number(SYSTEM_INFO_KEY_MEMORY_MIB, " MiB"));
    return tools::EXIT_OK;
}

} // namespace qorctl
