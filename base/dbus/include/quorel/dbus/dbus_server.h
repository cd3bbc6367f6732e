// CDBusServer: abstract base of every bus service: one object, one private connection, one owned
// bus name, one reader thread.
//
// message_request, message_signal and message_error run on the handle's reader thread, one
// message at a time. To answer a request later, clear need_reply, keep a copy of reply and send it
// with send_dbus_reply. Never block_call from those three operations.
//
// A derived class disconnects in its own destructor (or stop operation): once it is gone, the
// reader thread must not deliver anything more to it. Callbacks aborted by disconnect (status 1)
// run on the disconnecting thread with the handle's lock held and must not call back into it.
#ifndef QUOREL_DBUS_DBUS_SERVER_H
#define QUOREL_DBUS_DBUS_SERVER_H

#include <cstdint>
#include <list>
#include <string>

#include "quorel/dbus/dbus_callback.h"
#include "quorel/dbus/dbus_message.h"

namespace Quorel {
namespace Iot {
namespace DBus {

class CDBusInternalHandle;

class CDBusServer {
public:
    CDBusServer(const std::string& address, const std::string& name, const std::list<std::string>& rules);
    // Deletes the handle, which disconnects and stops the reader thread.
    virtual ~CDBusServer();
    CDBusServer(const CDBusServer&) = delete;
    CDBusServer& operator=(const CDBusServer&) = delete;

    virtual void message_request(CDBusMethodCall& request, CDBusMethodReturn& reply, bool& need_reply) = 0;
    virtual void message_signal(CDBusSignal& signal) = 0;
    // Called with -1 when the connection's read/write fails (the bus is lost).
    virtual void message_error(int32_t code) = 0;

    int32_t connect_to_bus();
    void disconnect();
    void set_watchdog(const std::string& path, const std::string& id, uint32_t interval_s);
    int32_t block_call(CDBusMessage& request, CDBusMessage& reply, uint32_t timeout_ms);
    int32_t unblock_call(CDBusMessage& request, void* user_data, const DBusCallback& callback);
    // A call whose answer nobody waits for (see CDBusInternalHandle::send_no_reply).
    int32_t send_no_reply(CDBusMessage& request);
    // Takes no further incoming traffic; replies can still be sent until disconnect.
    void stop_reading();
    bool send_dbus_reply(CDBusMessage& reply);
    // True between a successful connect_to_bus and disconnect or the loss of the bus.
    bool is_connected() const;

    static bool validate_bus_name(const std::string& name);

protected:
    CDBusInternalHandle* m_handle;
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Quorel

#endif
