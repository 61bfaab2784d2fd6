// NPR and NPRF reports: the fields after the mnemonic, parsed for both generations as the link
// hands them up, then written back as the session log writes them.
#include "com/NprCodec.h"
#include "mrl/utils/Exception.h"

using namespace OrviaGonioManager::Com;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QStringList params =
        QString::fromLatin1(reinterpret_cast<const char*>(data), qsizetype(size)).split(QLatin1Char(','));
    for (const auto version : {GnxLink::GNX_V1, GnxLink::GNX_V2})
        for (const auto type : {GnxLink::GNXMSG_NPR, GnxLink::GNXMSG_NPRF}) {
            try {
                const OrviaRxMessage_t m = NprCodec::parse(version, type, params);
                NprCodec::LineOptions options;
                options.layout = version;
                options.slotCount = version == GnxLink::GNX_V1 ? 16 : 64;
                (void)NprCodec::formatLine(m, options);
            } catch (const MRL::Utils::Exception&) {
                // A wrong field count is refused with its text: that is the expected way out.
            }
        }
    return 0;
}
