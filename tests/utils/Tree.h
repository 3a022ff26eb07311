// A directory tree of a test's own.
#ifndef QORTEST_TREE_H
#define QORTEST_TREE_H

#include <string>

#include <boost/filesystem.hpp>

#include "ChildProcess.h"

namespace qortest
{

/// Every function returns the full path of the name.
struct Tree
{
    std::string At(const std::string& name = "") const
    {
        return name.empty() ? m_directory.Path() : m_directory.Path(name);
    }
    std::string Write(const std::string& name, const std::string& content = "x") const
    {
        boost::filesystem::create_directories(boost::filesystem::path(At(name)).parent_path());
        WriteFile(At(name), content);
        return At(name);
    }
    TemporaryDirectory m_directory;
};

} // namespace qortest

#endif
