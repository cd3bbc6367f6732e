// Bounds on what callers on the bus and publishers on the broker can make the bridge hold.
#ifndef MQTT_BRIDGE_DEVD_BRIDGE_LIMITS_H
#define MQTT_BRIDGE_DEVD_BRIDGE_LIMITS_H

#include <cstddef>

namespace BridgeLimits {

// Default bound on (topic filter, subscriber) pairs; --max-subscriptions changes it.
constexpr size_t kDefaultMaxSubscriptions = 4096;
// Bytes of a topic or topic filter. MQTT allows 65535, but then 4096 subscriptions alone could
// pin 256 MiB; real gateway topics are well under 200 bytes.
constexpr size_t kMaxTopicBytes = 1024;
// Bytes of a payload, either way. Larger messages from the broker are dropped with a log line.
constexpr size_t kMaxPayloadBytes = 1024 * 1024;
// Calls waiting for a SUBACK or PUBACK at once, and the payload bytes those publications hold.
constexpr size_t kMaxCallsInFlight = 1024;
constexpr size_t kMaxPublishBytesInFlight = 16 * 1024 * 1024;
// While more than this waits to be written to the bus, the bridge stops reading the broker, so
// that a stalled bus holds messages in the broker (which bounds its queues) rather than here.
constexpr size_t kMaxBusBacklogBytes = 8 * 1024 * 1024;

}  // namespace BridgeLimits

#endif
