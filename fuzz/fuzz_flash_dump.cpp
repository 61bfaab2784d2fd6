// Single flash dumps (later generations): any bytes decode or fail with the decoder's exception.
#include "mrl/utils/Exception.h"
#include "utils/FlashDecoder.h"

#include <cstdlib>

using OrviaGonioManager::Com::OrviaRxMessage_t;
using OrviaGonioManager::Utils::FlashDecoder;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray dump(reinterpret_cast<const char*>(data), qsizetype(size));
    qsizetype records = 0;
    const auto sink = [&](const OrviaRxMessage_t& m) {
        if (m.platformIndex != -1 || m.platformId.size() != 7 || m.payload.size() > 64 || m.band > 15 ||
            m.extraCode > 7)
            std::abort();
        // Each record takes a header and its trailing byte, and one more byte must follow the last.
        if (++records * (FlashDecoder::kDumpHeaderSize + 1) >= dump.size())
            std::abort();
    };
    try {
        FlashDecoder::decodeDump(dump, sink);
    } catch (const MRL::Utils::Exception&) {
    }
    return 0;
}
