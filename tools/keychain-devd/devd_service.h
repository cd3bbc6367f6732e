// CDevService: the development keychain service on the bus. Owns "iot.gateway.security.keychain"
// and answers kcAddKey and kcGetKey from a CItemStore, one call at a time on the thread that runs
// it. Other members are refused with an error reply.
#ifndef KEYCHAIN_DEVD_DEVD_SERVICE_H
#define KEYCHAIN_DEVD_DEVD_SERVICE_H

#include <dbus/dbus.h>
#include <signal.h>

#include <string>

#include "item_store.h"
#include "quorel/keychain/keychain_wire.h"

class CDevService {
public:
    explicit CDevService(CItemStore& store);

    // Opens a private connection to address, registers and takes the service name.
    bool connect(const std::string& address);
    // Serves calls until stop becomes non-zero (checked at least every 100 ms) or the bus goes away;
    // false in the latter case.
    bool run(const volatile sig_atomic_t& stop);

private:
    DBusMessage* answer(DBusMessage* call);
    DBusMessage* handle_add(DBusMessage* call);
    DBusMessage* handle_get(DBusMessage* call);

    CItemStore& m_store;
    Quorel::Iot::Keychain::ConnectionPtr m_connection;
};

#endif
