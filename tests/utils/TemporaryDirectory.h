// A directory of a test's own, removed with all its contents.
#ifndef QORTEST_TEMPORARYDIRECTORY_H
#define QORTEST_TEMPORARYDIRECTORY_H

#include <fstream>
#include <string>

#include <boost/filesystem.hpp>

namespace qortest
{

/// Every function returns the full path of the name.
class TemporaryDirectory
{
public:
    TemporaryDirectory()
        : m_path(boost::filesystem::temp_directory_path() /
                 boost::filesystem::unique_path("qor-%%%%%%%%%%%%%%%%"))
    {
        MakeDirectory("");
    }
    ~TemporaryDirectory()
    {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(m_path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    std::string At(const std::string& name) const
    {
        return name.empty() ? m_path.string() : (m_path / name).string();
    }
    std::string MakeDirectory(const std::string& name) const
    {
        boost::filesystem::create_directories(At(name));
        return At(name);
    }
    /// A file, with the directories above it.
    std::string Write(const std::string& name, const std::string& content = "x") const
    {
        boost::filesystem::create_directories((m_path / name).parent_path());
        std::ofstream(At(name), std::ios::binary) << content;
        return At(name);
    }
    std::string Link(const std::string& name, const std::string& target) const
    {
        boost::filesystem::create_symlink(target, At(name));
        return At(name);
    }

private:
    const boost::filesystem::path m_path;
};

} // namespace qortest

#endif
