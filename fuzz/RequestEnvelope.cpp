// Reading of request envelopes.
#include "Envelope.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    static const qorfuzz::TCEnvelope envelope;
    const auto value = qorfuzz::ReceivedValue(pData, size);
    int type = 77;
    bool isAsync = false;
    qor::TByteArray payload{1, 2, 3};
    envelope.t_ConvertBytes(value.get(), type, isAsync, payload);
    if (type == 77 && payload == qor::TByteArray{1, 2, 3})
    {
        return 0; // refused, or indistinguishable from it
    }
    // What was read is what a writer of it sends.
    GVariant* pWritten = nullptr;
    envelope.t_ConvertBytes(type, isAsync, payload, pWritten);
    const auto written = qorfuzz::Sunk(pWritten);
    int typeAgain = 0;
    bool isAsyncAgain = !isAsync;
    qor::TByteArray payloadAgain;
    envelope.t_ConvertBytes(written.get(), typeAgain, isAsyncAgain, payloadAgain);
    qorfuzz::Require(typeAgain == type && isAsyncAgain == isAsync && payloadAgain == payload,
                     "a request that was read is written and read again as the same");
    return 0;
}
