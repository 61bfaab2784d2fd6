#pragma once

namespace OrviaGonioManager {

// Registers every type that crosses a thread or a queued connection.
void registerMetaTypes();

} // namespace OrviaGonioManager
