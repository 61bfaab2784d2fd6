#pragma once

#include <QString>

namespace OrviaGonioManager::Stream {

// What the station and the archiver share about a broker: its refusals in words, which of them
// another try would only repeat, and how long to wait before the next try.
namespace MqttWords {

// The longest wait before trying a broker again, jitter included.
constexpr int kMaxRetryMs = 5000;

// A CONNACK's return code in words.
QString connackReason(int code);
// Refusals that another try would only repeat.
bool isFinalConnack(int code);
// Spread over ±20%, never above kMaxRetryMs, so that a fleet does not come back in step.
int jittered(int nominalMs);

} // namespace MqttWords

} // namespace OrviaGonioManager::Stream
