#pragma once

#include "com/GnxLink.h"

#include <QByteArray>
#include <QObject>
#include <QString>

namespace OrviaGonioManager::Utils {

// Turns flash memory dumps into received-message records, handed on one by one with
// sigOrviaDecoded (origin RXORIGIN_FLASH) before the next is decoded.
class FlashMemory : public QObject
{
    Q_OBJECT

public:
    static FlashMemory* instance();

    // First generation: one dump per favourite platform. Throws on a truncated record; the
    // records before it have been emitted.
    void decodePlatformDump(quint32 platformIndex, const QString& platformId, const QByteArray& dump);
    // Later generations: one dump for all platforms.
    void decodeDump(const QByteArray& dump);

signals:
    void sigOrviaDecoded(OrviaGonioManager::Com::OrviaRxMessage_t orviaRxMessage,
                         OrviaGonioManager::Com::GnxLink::RxOrigin_t rxOrigin);

private:
    explicit FlashMemory(QObject* parent = nullptr);
    void emitRecord(const Com::OrviaRxMessage_t& message);
};

} // namespace OrviaGonioManager::Utils
