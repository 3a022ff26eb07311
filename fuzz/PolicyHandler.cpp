// The service's answer to any request: decode, check, store.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include <boost/filesystem.hpp>

#include <qor/PolicyMessage.h>

#include "FuzzTarget.h"
#include "qord/PolicyHandler.h"

namespace
{

constexpr std::size_t g_maxPolicySize = 4096;

class TCDirectory
{
public:
    TCDirectory()
        : m_path(boost::filesystem::temp_directory_path() /
                 boost::filesystem::unique_path("qorfuzz-%%%%-%%%%-%%%%"))
    {
        boost::filesystem::create_directory(m_path);
    }

    ~TCDirectory()
    {
        boost::system::error_code error;
        boost::filesystem::remove_all(m_path, error);
    }

    TCDirectory(const TCDirectory&) = delete;
    TCDirectory& operator=(const TCDirectory&) = delete;

    std::string File() const
    {
        return (m_path / "policy.xml").string();
    }

    std::ptrdiff_t Entries() const
    {
        return std::distance(boost::filesystem::directory_iterator(m_path),
                             boost::filesystem::directory_iterator());
    }

private:
    boost::filesystem::path m_path;
};

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The client's own reader may be of another word size, or of a version that is newer than ours.
bool Answers(const qor::TByteArray& reply, const qor::TByteArray& request, std::int32_t result)
{
    if (reply.size() <= sizeof result || reply.size() > request.size())
    {
        return false; // a request has its text's length where the reply has the result
    }
    const std::size_t header = reply.size() - sizeof result;
    return std::equal(reply.begin(), reply.begin() + static_cast<long>(header), request.begin()) &&
           std::memcmp(reply.data() + header, &result, sizeof result) == 0;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    static const TCDirectory directory;
    static qord::TCUserDatabase users;
    static qord::TCPolicyHandler handler(qord::TCPolicyStore(directory.File()), g_maxPolicySize,
                                         users);
    qord::TSAsker asker;
    asker.m_permission = qord::EPermission::GRANTED;
    const qor::TByteArray request = qorfuzz::Bytes(pData, size);
    const std::string before = ReadFile(directory.File());

    qor::TByteArray reply;
    int result = -1;
    const bool isPolicy = handler.Handle(request, asker, reply, result);
    const std::string after = ReadFile(directory.File());
    if (!isPolicy || result != qor::POLICY_STORED)
    {
        qorfuzz::Require(after == before, "a refused request changes nothing");
    }
    else
    {
        std::string_view policy;
        std::string error;
        qorfuzz::Require(qor::ReadPolicyRequest(request, policy, error) ==
                                 qor::EPolicyRequest::GOOD &&
                             after == policy,
                         "a stored policy is the one that was sent");
        qorfuzz::Require(policy.size() <= g_maxPolicySize, "a stored policy is within the limit");
    }
    qorfuzz::Require(!isPolicy || Answers(reply, request, result),
                     "the result is in the request's own header");
    qorfuzz::Require(directory.Entries() <= 3,
                     "nothing is left beside the policy, its history and its lock");
    return 0;
}
