// CDBusInternalHandle: one private libdbus connection, one owned bus name, one reader thread
// ("DBus_handle_thread") and the tables of outstanding outgoing calls.
//
// Calling order: construct, connect_to_bus, optionally set_watchdog, any calls from any thread,
// disconnect, destroy. The reader thread delivers every incoming message to the owning
// CDBusServer's virtual operations, one at a time, in arrival order; a block_call made from that
// thread can never complete (it ends by timeout).
//
// Result codes: connect_to_bus 0 / -1 already connected / -2 open / -3 register / -4 name /
// -5 match rule / -6 thread; block_call 0 / -1 not connected / -2 send / -3 timeout /
// -4 aborted by disconnect / -5 error reply; unblock_call 0 / -1 not connected / -2 send.
#ifndef QUOREL_DBUS_DBUS_INTERNAL_HANDLE_H
#define QUOREL_DBUS_DBUS_INTERNAL_HANDLE_H

#include <dbus/dbus.h>

#include <atomic>
#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "quorel/dbus/dbus_callback.h"
#include "quorel/dbus/dbus_message.h"
#include "quorel/platform/mutex.h"
#include "quorel/platform/semaphore.h"
#include "quorel/platform/thread.h"

namespace Quorel {
namespace Iot {
namespace DBus {

class CDBusServer;

class CDBusInternalHandle : public Platform::CThread {
public:
    CDBusInternalHandle(CDBusServer* server, const std::string& address, const std::string& name,
                        const std::list<std::string>& rules);
    ~CDBusInternalHandle() override;
    CDBusInternalHandle(const CDBusInternalHandle&) = delete;
    CDBusInternalHandle& operator=(const CDBusInternalHandle&) = delete;

    int32_t connect_to_bus();
    void disconnect();
    // timeout_ms 0 waits for ever. On 0 or -5 reply holds the answer.
    int32_t block_call(CDBusMessage& request, CDBusMessage& reply, uint32_t timeout_ms);
    int32_t unblock_call(CDBusMessage& request, void* user_data, const DBusCallback& callback);
    bool send_dbus_reply(CDBusMessage& reply);
    bool set_watchdog(const std::string& path, const std::string& id, uint32_t interval_s);
    // 0 when error is not set; otherwise logs "dbus error:%s.", frees it and returns -1.
    static int32_t check_and_abort(DBusError* error);

    bool is_connected() const { return m_connected.load(std::memory_order_acquire); }

protected:
    void threadProc() override;

    // ---- private section: owned by the bus layer's implementation ----
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Quorel

#endif
