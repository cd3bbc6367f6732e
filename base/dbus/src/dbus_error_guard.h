// CDBusErrorGuard: a libdbus error that is initialised on construction and freed on every way out.
#ifndef QUOREL_DBUS_SRC_DBUS_ERROR_GUARD_H
#define QUOREL_DBUS_SRC_DBUS_ERROR_GUARD_H

#include <dbus/dbus.h>

namespace Quorel {
namespace Iot {
namespace DBus {

class CDBusErrorGuard {
public:
    CDBusErrorGuard() { dbus_error_init(&m_error); }
    // Freeing an error that was never set, or was freed already, is harmless in libdbus.
    ~CDBusErrorGuard() { dbus_error_free(&m_error); }
    CDBusErrorGuard(const CDBusErrorGuard&) = delete;
    CDBusErrorGuard& operator=(const CDBusErrorGuard&) = delete;

    DBusError* get() { return &m_error; }

private:
    DBusError m_error;
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Quorel

#endif
