// Reading of the reply to a policy.
#include <boost/archive/archive_exception.hpp>

#include <qor/PolicyMessage.h>

#include "FuzzTarget.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    int result = 0;
    try
    {
        result = qor::ReadPolicyReply(qorfuzz::Bytes(pData, size));
    }
    catch (const boost::archive::archive_exception&)
    {
        return 0; // anything else is a finding
    }
    qor::TByteArray written;
    qor::WritePolicyReply(result, written);
    qorfuzz::Require(qor::ReadPolicyReply(written) == result,
                     "a result that was read is written and read again as the same");
    return 0;
}
