#include "app/Startup.h"

#include "mrl/utils/DateTime.h"

namespace OrviaGonioManager {

void registerMetaTypes()
{
    MRL::Utils::DateTime::registerMetaType();
}

} // namespace OrviaGonioManager
