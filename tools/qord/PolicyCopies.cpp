// Keeps copies of the policies that new ones replace.
#include "qord/PolicyCopies.h"

#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <ctime>
#include <string>
#include <utility>
#include <vector>

#include <boost/filesystem.hpp> // filesystem_error has moved among the smaller ones

#include <qor/QORFileSystem.h>

namespace qord
{
namespace
{

using boost::filesystem::path;

// Nanoseconds count: policies may come in quick succession.
std::pair<std::time_t, long> ChangedAt(const path& file)
{
    struct stat status;
    if (stat(file.c_str(), &status) != 0)
    {
        return {0, 0};
    }
    return {status.st_mtim.tv_sec, status.st_mtim.tv_nsec};
}

} // namespace

TCPolicyCopies::TCPolicyCopies(path policyFile, unsigned int limit)
    : m_policyFile(policyFile.has_parent_path() ? std::move(policyFile) : "." / policyFile),
      m_limit(limit)
{
}

bool TCPolicyCopies::Keep(path& copy) const
{
    copy.clear();
    if (m_limit == 0 || !qor::TSFileSystem::FileExists(m_policyFile))
    {
        return true;
    }
    // Under its name only when it is whole.
    const path directory = m_policyFile.parent_path();
    const path name = m_policyFile.filename();
    const path unfinished = directory / ("." + name.string() + ".keep");
    path unique;
    const bool isKept = qor::TSFileSystem::CopyFile(m_policyFile, unfinished, true) &&
                        qor::TSFileSystem::GenerateUniqueName(directory, name, unique) &&
                        qor::TSFileSystem::MoveFile(unfinished, unique, false);
    qor::TSFileSystem::RemoveFile(unfinished); // still there after a failure, or a move by copying
    if (isKept)
    {
        copy = unique;
    }
    return isKept;
}

void TCPolicyCopies::Drop(const path& copy) const
{
    if (!copy.empty())
    {
        qor::TSFileSystem::RemoveFile(copy);
    }
}

void TCPolicyCopies::RemoveOld() const
{
    if (m_limit == 0)
    {
        return;
    }
    std::vector<path> copies = m_List();
    std::sort(copies.begin(), copies.end(),
              [](const path& a, const path& b) { return ChangedAt(a) > ChangedAt(b); });
    for (std::size_t i = m_limit; i < copies.size(); ++i)
    {
        qor::TSFileSystem::RemoveFile(copies[i]);
    }
}

// Empty also when the directory cannot be read to its end: what is too much is removed next time.
std::vector<path> TCPolicyCopies::m_List() const
try
{
    std::vector<path> copies;
    for (const path& file : qor::TSFileSystem::GetFileList(m_policyFile.parent_path(),
                                                           m_policyFile.extension().string(), ""))
    {
        if (m_IsCopy(file))
        {
            copies.push_back(file);
        }
    }
    return copies;
}
catch (const boost::filesystem::filesystem_error&)
{
    return {};
}

bool TCPolicyCopies::m_IsCopy(const path& file) const
{
    const std::string start = m_policyFile.stem().string() + "_";
    const std::string name = file.stem().string();
    return file.extension() == m_policyFile.extension() && name.size() > start.size() &&
           name.compare(0, start.size(), start) == 0 &&
           std::all_of(name.begin() + static_cast<std::ptrdiff_t>(start.size()), name.end(),
                       [](unsigned char digit) { return std::isdigit(digit) != 0; });
}

} // namespace qord
