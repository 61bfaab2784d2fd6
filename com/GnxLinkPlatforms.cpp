#include "com/GnxLink.h"

#include "com/PlatformCodec.h"
#include "mrl/utils/Exception.h"
#include "utils/GpsFormat.h"

namespace OrviaGonioManager::Com {

namespace {

// The slot layout depends on the generation: identify the device when that has not been done.
GnxLink::GnxVersion_t slotLayout(GnxLink& link)
{
    if (link.version() == GnxLink::GNX_UNDEFINEDVERSION && !link.isRecording())
        link.readDeviceInfo();
    if (link.version() == GnxLink::GNX_UNDEFINEDVERSION)
        throw MRL::Utils::Exception(QStringLiteral("Unknown GNX version, read the device information first"),
                                    2);
    return link.version();
}

// While recording nothing is answered, so there is no reply to check.
void sendIp(GnxLink& link, GnxLink::GnxVersion_t version, const QStringList& params)
{
    if (link.isRecording())
        link.sendBlockingRequest(GnxLink::CMD_IP, params);
    else
        link.sendRequestAndCheck(GnxLink::CMD_IP, PlatformCodec::parameterCount(version), params);
}

} // namespace

GnxLink::PlatformInfo GnxLink::getPlatformInfo(int index)
{
    const GnxVersion_t version = slotLayout(*this);
    sendRequestAndCheck(CMD_IP, PlatformCodec::parameterCount(version),
                        PlatformCodec::readParameters(index, version));
    PlatformCodec::Slot slot = PlatformCodec::parseReply(replyValues_, version);
    if (slot.hasGpsFormat) // the collection's own definition wins over the slot's copy
        slot.platform.gpsFormat = Utils::GpsFormat::instance()->importGpsFormat(slot.gpsFormat);
    return slot.platform;
}

void GnxLink::setPlatformInfo(const PlatformInfo& platform, bool recreate)
{
    PlatformCodec::checkGpsFormat(platform.gpsFormat);
    PlatformCodec::checkTexts(platform);
    const GnxVersion_t version = slotLayout(*this);
    if (recreate)
        sendIp(*this, version, PlatformCodec::clearParameters(platform.index, version));
    // A played-back script re-creates its slots whatever the receiver held before.
    sendIp(*this, version, PlatformCodec::writeParameters(platform, version, recreate || recording_));
}

void GnxLink::deletePlatformInfo(int index)
{
    const GnxVersion_t version = slotLayout(*this);
    sendIp(*this, version, PlatformCodec::clearParameters(index, version));
}

} // namespace OrviaGonioManager::Com
