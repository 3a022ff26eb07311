// qorctl info: prints the path of the policy, and facts about the platform.
#include <chrono>
#include <string>

#include <boost/filesystem/operations.hpp>

#include <qor/QORCachingUtils.h>
#include <qor/QORDirsManager.h>
#include <qor/QORFileSystem.h>

#include "common/ExitStatus.h"
#include "qorctl/Commands.h"
#include "qorctl/Json.h"
#include "qorctl/ServiceFacts.h"
#include "qorctl/Table.h"

namespace qorctl
{
namespace
{

constexpr int USB_TEST_MODE = 2;
constexpr std::chrono::milliseconds PATIENCE(500); // most of it is known without the service

// Of the file system that holds the directory, or will hold it.
TJson FreeSpace(boost::filesystem::path directory)
{
    while (!directory.empty() && !qor::TSFileSystem::FileExists(directory))
    {
        directory = directory.parent_path();
    }
    const int space = qor::TSFileSystem::GetFreeSpaceSize(directory);
    return space < 0 ? TJson() : TJson(space);
}

TJson Name(system_info_key_e key)
{
    std::string value;
    return qor::TCVelkinCachingUtils::GetSystemInfoKeyCached(key, value) ? TJson(value) : TJson();
}

TJson Number(system_info_key_e key)
{
    int value = 0;
    return qor::TCVelkinCachingUtils::GetSystemInfoKeyCached(key, value) ? TJson(value) : TJson();
}

// Null if this user may not look.
TJson IsThere(const boost::filesystem::path& file)
{
    boost::system::error_code error;
    const auto type = boost::filesystem::status(file, error).type();
    return type == boost::filesystem::status_error
               ? TJson()
               : TJson(type != boost::filesystem::file_not_found);
}

TJson Collect(const TSOptions& options)
{
    qor::TCDirsManager::Initialize();
    const std::string platformFile = qor::TCDirsManager::GetPolicyXmlPath();
    qor::TSMethodResult result;
    const TJson told = AskProperties(options, result, PATIENCE);
    const std::string serviceFile = Text(told, "PolicyFile");
    const std::string file = serviceFile.empty() ? platformFile : serviceFile;
    const bool isOthers = file.compare(0, 1, "/") != 0; // in a folder that only the service knows
    const TJson hash = Part(told, "PolicySha256");
    const TJson isThere = hash.is_string() ? TJson(!Text(told, "PolicySha256").empty())
                          : isOthers       ? TJson()
                                           : IsThere(file);
    return {
        {"policy_file", file},
        {"policy_file_of", serviceFile.empty() ? "platform" : "service"},
        {"policy_present", isThere},
        {"platform_policy_file", platformFile},
        {"policy_mode", qor::TCDirsManager::QORMode == USB_TEST_MODE ? "USB test" : "normal"},
        {"free_mib", isOthers ? TJson() : FreeSpace(boost::filesystem::path(file).parent_path())},
        {"model", Name(SYSTEM_INFO_KEY_MODEL)},
        {"system", Name(SYSTEM_INFO_KEY_SYSTEM_NAME)},
        {"version", Name(SYSTEM_INFO_KEY_SYSTEM_VERSION)},
        {"kernel", Name(SYSTEM_INFO_KEY_KERNEL_RELEASE)},
        {"processors", Number(SYSTEM_INFO_KEY_PROCESSOR_COUNT)},
        {"memory_mib", Number(SYSTEM_INFO_KEY_MEMORY_MIB)}};
}

void PrintForPeople(const TJson& info)
{
    const auto known = [&info](const char* name, const char* unit = "")
    {
        const std::string value = Text(info, name);
        return value.empty() ? "unknown" : value + unit;
    };
    const bool isServices = Part(info, "policy_file_of") == "service";
    const bool isOthers = Text(info, "policy_file").compare(0, 1, "/") != 0;
    const TJson isThere = Part(info, "policy_present");
    TCTable table;
    table.Add({"Policy file",
               Text(info, "policy_file") + (isThere.is_null()  ? " (unknown whether there is one)"
                                            : isThere == false ? " (none yet)"
                                                               : "")});
    table.Add({"", isOthers     ? "in the folder that the service was started in"
                   : isServices ? "the policy file of the running service"
                                : "the platform's place; no service is running or answers"});
    table.Add({"Platform's place", Text(info, "platform_policy_file")});
    table.Add({"Policy mode", Text(info, "policy_mode")});
    table.Add({"Free space", known("free_mib", " MiB")});
    table.Add({"Model", known("model")});
    table.Add({"System", known("system")});
    table.Add({"Version", known("version")});
    table.Add({"Kernel", known("kernel")});
    table.Add({"Processors", known("processors")});
    table.Add({"Memory", known("memory_mib", " MiB")});
    table.Print();
}

} // namespace

int Info(const TSOptions& options)
{
    const TJson info = Collect(options);
    if (options.m_json)
    {
        PrintJson(info);
    }
    else
    {
        PrintForPeople(info);
    }
    return tools::EXIT_OK;
}

} // namespace qorctl
