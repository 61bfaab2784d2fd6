#pragma once

#include "utils/RxTableModel.h"

#include <QJsonObject>

namespace OrviaGonioManager::Utils {

// One received message as a JSON object: every message field under its own name, the time in
// ISO 8601 UTC with milliseconds, the decoded payload position (or null) and the favourite's
// label when there is one. The layout is documented for the command line's users.
QJsonObject rxJson(const RxTableModel::Row& row);

} // namespace OrviaGonioManager::Utils
