// The bounds of what the configuration service accepts and answers. Each one keeps a request, a
// stored document or a peer from crashing, stalling or swelling the service; each is answered with
// the result code the interface already has for a refusal of that kind. The README's "Limits and
// guarantees" lists them for clients.
#ifndef QUOREL_CONFIGMANAGER_LIMITS_H
#define QUOREL_CONFIGMANAGER_LIMITS_H

#include <cstddef>
#include <cstdint>

namespace Quorel {
namespace Iot {
namespace Configmanager {
namespace Limits {

// A key set through the bus (or subscribed to): at most this many bytes. Longer: 100101 (set) or
// 100105 (subscribe).
constexpr size_t kMaxKeyBytes = 1024;
// A value text as the store keeps it (for set_config_with_ts: the envelope, with the client's text
// JSON-escaped in it). Longer: 100101, nothing stored.
constexpr size_t kMaxValueBytes = 1024 * 1024;
// All keys and their base64-coded values together, as the document holds them. A set that would
// take the store past it: 100101.
constexpr size_t kMaxStoreBytes = 32 * 1024 * 1024;
// Number of keys in the store. A set that would add one more: 100101.
constexpr size_t kMaxKeys = 262144;
// The text of one answer. dbus-daemon drops a connection that sends a message over its limit
// (32 MiB by default); an answer that would be longer is refused with 100100 instead.
constexpr size_t kMaxReplyBytes = 24 * 1024 * 1024;
// A default file or keychain copy larger than this does not load.
constexpr size_t kMaxDocumentBytes = 64 * 1024 * 1024;
// Subscription entries (key, subscriber) in the table. One more: 100105.
constexpr size_t kMaxSubscriptions = 65536;
// Owner questions ("notify_config" to a key's owner) waiting for an answer: per owner, and in all.
// A set beyond either bound answers 100102 at once, so one silent owner cannot hold the service's
// share of the bus daemon's pending replies (128 by default).
constexpr size_t kMaxOwnerQuestions = 16;
constexpr size_t kMaxOwnerQuestionsTotal = 64;
// Key patterns: longest accepted pattern, largest bound of a \{m,n\} repeat, and the time a query
// may spend matching before it gives up with 100100.
constexpr size_t kMaxPatternBytes = 256;
constexpr unsigned kMaxRepeatBound = 32;
constexpr uint32_t kQueryBudgetMs = 250;

}  // namespace Limits
}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
