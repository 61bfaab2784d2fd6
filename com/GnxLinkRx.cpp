#include "com/GnxLink.h"

#include "app/Settings.h"
#include "com/NprCodec.h"
#include "mrl/utils/Exception.h"

#include <QDebug>

namespace OrviaGonioManager::Com {

void GnxLink::slotRxReceived(GnxLink::GnxMessageType_t gnxMessageType, QStringList params)
{
    // Reached from the event loop: a bad line is logged and dropped, never thrown further.
    try {
        GnxVersion_t layout = version_;
        if (layout == GNX_UNDEFINEDVERSION) // not identified yet: the count tells the generation
            layout = NprCodec::versionForCount(gnxMessageType, int(params.size()));
        const OrviaRxMessage_t message = NprCodec::parse(layout, gnxMessageType, params);
        emit sigOrviaMessageReceived(message, RXORIGIN_LIVE);
    } catch (const MRL::Utils::Exception& e) {
        qWarning().noquote() << e.message();
    } catch (const std::exception& e) {
        qWarning().noquote() << e.what();
    }
}

QString GnxLink::toNprLine(const OrviaRxMessage_t& message) const
{
    const auto& settings = Utils::Settings::instance();
    NprCodec::LineOptions options;
    options.layout = settings.nprMessagesFormat != 0 ? GnxVersion_t(settings.nprMessagesFormat) : version_;
    options.slotCount = maxPlatformsNumber();
    options.keepGnx134ChecksumError = settings.keepChecksumErrorOnNprGnx134;
    return NprCodec::formatLine(message, options);
}

} // namespace OrviaGonioManager::Com
