// Result codes of the configuration service: the first int32 of every reply except Introspect.
// The values are the ones clients have always received, gaps included.
#ifndef QUOREL_CONFIGMANAGER_CONFIG_BUSINESS_CODES_H
#define QUOREL_CONFIGMANAGER_CONFIG_BUSINESS_CODES_H

#include <cstdint>

namespace Quorel {
namespace Iot {
namespace Configmanager {
namespace BusinessCode {

constexpr int32_t kOk = 0;
// Get family: the key argument was missing or not a string; callback: the owner's completion was
// not a method return.
constexpr int32_t kNotEvaluated = 100000;
constexpr int32_t kBadArguments = 100001;
constexpr int32_t kNotFound = 100100;  // or the stored text lacks what the reader needs
constexpr int32_t kStoreRefused = 100101;
constexpr int32_t kOwnerUnreachable = 100102;
constexpr int32_t kOwnerNoCode = 100103;  // the owner's method return carried no leading int32
constexpr int32_t kBadType = 100104;
constexpr int32_t kRefused = 100105;  // another owner holds the key
constexpr int32_t kBadName = 100106;
constexpr int32_t kNotSubscribed = 100107;

}  // namespace BusinessCode
}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
