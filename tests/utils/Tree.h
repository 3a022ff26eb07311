// A directory tree of a test's own.
#ifndef QORTEST_TREE_H
#define QORTEST_TREE_H

#include <string>

#include <boost/filesystem.hpp>

#include "ChildProcess.h"

namespace qortest
{

struct Tree : TemporaryDirectory
{
    /// A file, with the directories above it; returns its path.
    std::string Write(const std::string& name, const std::string& content = "x") const
    {
        boost::filesystem::create_directories(boost::filesystem::path(Path(name)).parent_path());
        WriteFile(Path(name), content);
        return Path(name);
    }
};

} // namespace qortest

#endif
