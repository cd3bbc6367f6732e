// What "subscribe" and "publish" answer: the JSON text {"code":0} on success, otherwise
// {"code":N,"message":"..."}. The adapter only tells zero from non-zero; the numbers and the
// message are for the developer reading a bus trace, so each failure has a code of its own.
#ifndef MQTT_BRIDGE_DEVD_BRIDGE_REPLY_H
#define MQTT_BRIDGE_DEVD_BRIDGE_REPLY_H

#include <string>

namespace ReplyCode {

constexpr int kOk = 0;
// No broker session at the moment (down, unreachable, or still connecting): try again later.
constexpr int kNotConnected = 1;
// The broker answered the SUBSCRIBE with the failure code 0x80 (e.g. its ACL forbids the filter).
constexpr int kRefused = 2;
// Empty, longer than the bridge accepts, a misplaced wildcard, or a wildcard in a publish topic.
constexpr int kInvalidTopic = 3;
// The subscriber argument is not a bus name signals could be addressed to.
constexpr int kInvalidSubscriber = 4;
// The broker did not acknowledge (SUBACK / PUBACK) within the acknowledgement time-out.
constexpr int kTimedOut = 5;
// Too many subscriptions, or too many calls waiting for the broker at once.
constexpr int kLimitReached = 6;
constexpr int kPayloadTooLarge = 7;
// The broker connection went away before the acknowledgement came. A publication may still be
// delivered once the bridge has reconnected (QoS 1 is at-least-once).
constexpr int kConnectionLost = 8;
// libmosquitto refused the request for a reason of its own (out of memory, protocol error).
constexpr int kInternal = 9;
// The bridge is shutting down.
constexpr int kStopping = 10;

}  // namespace ReplyCode

// The reply text for code; message is left out when code is kOk.
std::string reply_text(int code, const std::string& message = std::string());

#endif
