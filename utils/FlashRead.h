#pragma once

#include "com/GnxLink.h"

#include <QString>

#include <map>

namespace OrviaGonioManager::Utils {

class JobProgress;

// Reads the receiver's whole flash memory and decodes it through FlashMemory, which hands each
// message on as it is decoded. The first generation is read one favourite slot at a time
// (usedSlots: index -> identifier), later ones as one dump. A read that fails part-way still
// decodes what it read, then throws the failure; a cancelled one decodes what it read.
void readWholeFlash(Com::GnxLink& link, JobProgress& job, const std::map<int, QString>& usedSlots);

} // namespace OrviaGonioManager::Utils
