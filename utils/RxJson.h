#pragma once

#include "utils/RxTableModel.h"

#include <QJsonObject>

#include <optional>

namespace OrviaGonioManager::Utils {

// One received message as a JSON object: every message field under its own name, the time in
// ISO 8601 UTC with milliseconds, the decoded payload position (or null) and the favourite's
// label when there is one. The layout is documented for the command line's users.
QJsonObject rxJson(const RxTableModel::Row& row);

// The row back from such an object: the message, the origin, and the platform, label and payload
// position by number, which also fill the table's Label and payload columns (as
// RxTableModel::byNumber() shows them). The favourite's slot (Index) and the GNX134 mean
// direction are not in the object and stay empty. "platformId", "mjd", "secondsOfDay" and
// "direction" are required; "time" is derived from mjd and secondsOfDay and not read. On a missing
// field or a wrong type, returns nothing and says what is wrong ("\"direction\" is not a number")
// in error and which field in field.
std::optional<RxTableModel::Row> rxFromJson(const QJsonObject& object, QString* error = nullptr,
                                            QString* field = nullptr);

} // namespace OrviaGonioManager::Utils
