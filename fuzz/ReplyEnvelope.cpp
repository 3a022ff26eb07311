// Reading of reply envelopes.
#include "Envelope.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* pData, std::size_t size)
{
    static const qorfuzz::TCEnvelope envelope;
    const auto value = qorfuzz::ReceivedValue(pData, size);
    bool result = false;
    qor::TByteArray output;
    envelope.t_ConvertBytes(value.get(), result, output);
    GVariant* pWritten = nullptr;
    envelope.t_ConvertBytes(output, result, pWritten);
    const auto written = qorfuzz::Sunk(pWritten);
    bool resultAgain = !result;
    qor::TByteArray outputAgain;
    envelope.t_ConvertBytes(written.get(), resultAgain, outputAgain);
    qorfuzz::Require(resultAgain == result && outputAgain == output,
                     "a reply that was read is written and read again as the same");
    return 0;
}
