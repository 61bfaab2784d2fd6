#include "utils/FlashMemory.h"

#include "utils/FlashDecoder.h"

namespace OrviaGonioManager::Utils {

FlashMemory::FlashMemory(QObject* parent) : QObject(parent)
{
    qRegisterMetaType<Com::OrviaRxMessage_t>("OrviaGonioManager::Com::OrviaRxMessage_t");
    qRegisterMetaType<Com::GnxLink::RxOrigin_t>("OrviaGonioManager::Com::GnxLink::RxOrigin_t");
}

FlashMemory* FlashMemory::instance()
{
    static FlashMemory* const flashMemory = new FlashMemory;
    return flashMemory;
}

void FlashMemory::emitRecord(const Com::OrviaRxMessage_t& message)
{
    emit sigOrviaDecoded(message, Com::GnxLink::RXORIGIN_FLASH);
}

void FlashMemory::decodePlatformDump(quint32 platformIndex, const QString& platformId, const QByteArray& dump)
{
    FlashDecoder::decodePlatformDump(platformIndex, platformId, dump,
                                     [this](const Com::OrviaRxMessage_t& m) { emitRecord(m); });
}

void FlashMemory::decodeDump(const QByteArray& dump)
{
    FlashDecoder::decodeDump(dump, [this](const Com::OrviaRxMessage_t& m) { emitRecord(m); });
}

} // namespace OrviaGonioManager::Utils
