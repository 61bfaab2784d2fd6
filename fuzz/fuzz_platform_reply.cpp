// Platform slot replies (CMD_IP) of both generations: parsed as the link reads a slot, then
// written back as a slot write, which checks its texts and its GPS format first.
#include "com/PlatformCodec.h"
#include "mrl/utils/Exception.h"

using namespace OrviaGonioManager::Com;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QStringList values =
        QString::fromLatin1(reinterpret_cast<const char*>(data), qsizetype(size)).split(QLatin1Char(','));
    for (const auto version : {GnxLink::GNX_V1, GnxLink::GNX_V2}) {
        try {
            PlatformCodec::Slot slot = PlatformCodec::parseReply(values, version);
            if (slot.hasGpsFormat)
                slot.platform.gpsFormat = &slot.gpsFormat;
            PlatformCodec::checkTexts(slot.platform);
            PlatformCodec::checkGpsFormat(slot.platform.gpsFormat);
            (void)PlatformCodec::writeParameters(slot.platform, version, false);
        } catch (const MRL::Utils::Exception&) {
            // Refused with its text.
        }
    }
    return 0;
}
