// DBusCallback: completion of a non-blocking call, invoked as (status, reply, user_data).
// status 0: the reply (or error reply) arrived and reply holds it; status 1: disconnect aborted
// the call and reply is an empty method-return message.
#ifndef QUOREL_DBUS_DBUS_CALLBACK_H
#define QUOREL_DBUS_DBUS_CALLBACK_H

#include <cstdint>

#include "quorel/platform/delegate.h"

namespace Quorel {
namespace Iot {
namespace DBus {

class CDBusMessage;

using DBusCallback = Platform::CDelegate<uint32_t, CDBusMessage*, void*>;

}  // namespace DBus
}  // namespace Iot
}  // namespace Quorel

#endif
