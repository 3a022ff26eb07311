// Reading of the argument of Hello, as the server does it.
#include "Envelope.h"
#include "QOREventList.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    static const qorfuzz::TCEnvelope envelope;
    const auto value = qorfuzz::ReceivedValue(pData, size);
    qor::TByteArray bytes;
    envelope.t_ConvertBytes(value.get(), bytes);
    qorfuzz::Require(bytes.size() <= size, "no bytes beyond those received");
    qorfuzz::Require(qor::ReadEventList(bytes).size() <= bytes.size() / 4,
                     "no types beyond those that fit");
    return 0;
}
