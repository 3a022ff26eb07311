// A directory of a test's own, removed with all its contents.
#ifndef QORTEST_TEMPORARYDIRECTORY_H
#define QORTEST_TEMPORARYDIRECTORY_H

#include <fstream>
#include <string>

#include <boost/filesystem.hpp>

namespace qortest
{

class TemporaryDirectory
{
public:
    TemporaryDirectory()
        : m_path(boost::filesystem::temp_directory_path() /
                 boost::filesystem::unique_path("qor-%%%%%%%%%%%%%%%%"))
    {
        boost::filesystem::create_directory(m_path);
    }
    ~TemporaryDirectory()
    {
        boost::system::error_code ignored;
        boost::filesystem::remove_all(m_path, ignored);
    }
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    const boost::filesystem::path& Path() const
    {
        return m_path;
    }

    /// Creates a file with the directories above it.
    boost::filesystem::path Write(const std::string& name, const std::string& content = "x") const
    {
        const boost::filesystem::path file = m_path / name;
        boost::filesystem::create_directories(file.parent_path());
        std::ofstream(file.string(), std::ios::binary) << content;
        return file;
    }

    boost::filesystem::path MakeDirectory(const std::string& name) const
    {
        boost::filesystem::create_directories(m_path / name);
        return m_path / name;
    }

    boost::filesystem::path Link(const std::string& name, const std::string& target) const
    {
        boost::filesystem::create_symlink(target, m_path / name);
        return m_path / name;
    }

private:
    boost::filesystem::path m_path;
};

} // namespace qortest

#endif
