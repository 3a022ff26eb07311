// Reading of the argument of Hello, as the server does it.
#include "Envelope.h"
#include "QOREnvelope.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    const auto value = qorfuzz::ReceivedValue(pData, size);
    const std::size_t length = qor::EventListLength(value.get());
    qorfuzz::Require(length <= size / 4, "no types beyond those received");
    qorfuzz::Require(qor::ReadEventList(value.get()).size() <= length, "no types beyond the list");
    return 0;
}
