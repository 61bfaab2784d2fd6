#include "com/GnxLink.h"

// Placeholder: live NPR/NPRF parsing and the NPR line formatter land here.

namespace OrviaGonioManager::Com {

void GnxLink::slotRxReceived(GnxLink::GnxMessageType_t, QStringList) {}

} // namespace OrviaGonioManager::Com
