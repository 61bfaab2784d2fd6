#include "com/GnxLink.h"

// Placeholder bodies so that the enumerations and records can be used before the protocol
// engine lands; replaced by the real implementation.

namespace OrviaGonioManager::Com {

GnxLink::GnxLink(QObject* parent) : QObject(parent) {}

GnxLink::~GnxLink() = default;

void GnxLink::slotReplyReceived(QStringList, bool) {}
void GnxLink::slotBinaryRfpDataReceived(QByteArray, bool) {}
void GnxLink::slotErrorOccured(QString) {}
void GnxLink::slotTimeout() {}

} // namespace OrviaGonioManager::Com
