// The check that a policy is well-formed.
#include <string>

#include "FuzzTarget.h"
#include "qord/PolicyXml.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    const std::string text(reinterpret_cast<const char*>(pData), size);
    std::string error;
    const bool isWellFormed = qord::IsWellFormedPolicy(text, error);
    qorfuzz::Require(isWellFormed == error.empty(), "a refusal has a reason");
    if (isWellFormed)
    {
        qorfuzz::Require(!qord::IsWellFormedPolicy(text + "<more/>", error),
                         "two documents are not one");
        qorfuzz::Require(!qord::IsWellFormedPolicy(text + '\0', error),
                         "a zero byte is not part of a document");
    }
    return 0;
}
