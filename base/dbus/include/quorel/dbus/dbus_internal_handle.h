// CDBusInternalHandle: one private libdbus connection, one owned bus name, one reader thread
// ("DBus_handle_thread") and the tables of outstanding outgoing calls.
//
// Calling order: construct, connect_to_bus, optionally set_watchdog, any calls from any thread,
// disconnect, destroy. The reader thread delivers every incoming message to the owning
// CDBusServer's virtual operations, one at a time, in arrival order; a block_call made from that
// thread can never complete (it ends by timeout).
//
// Threads: block_call, unblock_call and send_dbus_reply may be called from any thread; completions
// of non-blocking calls run on the reader thread without the handle's lock (they may issue new
// calls), or, when disconnect aborts them (status 1), on the disconnecting thread with the lock
// held (they must not call back into the handle). disconnect must not be called from the reader
// thread. After the bus is lost the reader reports message_error(-1) once and ends; the connection
// is then left as it is until the handle is destroyed or connects again.
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
#include <memory>
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
    // A call sent with the flag "no reply expected": nothing is kept, the bus daemon keeps no
    // pending reply for it, and an answer, should one come, is dropped. 0, -1 not connected,
    // -2 send failure.
    int32_t send_no_reply(CDBusMessage& request);
    // Ends the reader thread but keeps the connection, so a service that shuts down takes no
    // further requests while it still answers the ones it holds (each reply is flushed then).
    void stop_reading();
    bool send_dbus_reply(CDBusMessage& reply);
    bool set_watchdog(const std::string& path, const std::string& id, uint32_t interval_s);
    // 0 when error is not set; otherwise logs "dbus error:%s.", frees it and returns -1.
    static int32_t check_and_abort(DBusError* error);

    bool is_connected() const { return m_connected.load(std::memory_order_acquire); }
    const std::string& name() const { return m_name; }

protected:
    void threadProc() override;

private:
    struct BlockCallContext;
    struct UnblockCallContext;
    struct ConnectionCloser {
        void operator()(DBusConnection* connection) const;
    };
    using ConnectionPtr = std::unique_ptr<DBusConnection, ConnectionCloser>;

    void release_name(DBusConnection* connection);
    // Sends on the current connection; false when there is none or libdbus refuses the message.
    bool send_message(DBusMessage* message, uint32_t* serial) EXCLUDES(m_connection_mutex);
    void abort_pending_calls() EXCLUDES(m_mutex);

    // Reader thread only.
    // False for a message type that has no handler.
    // Waits until the socket has something to read (or to write, when libdbus holds unsent data);
    // the poll's revents, 0 when it did not poll because messages already wait to be popped.
    static short wait_for_traffic(DBusConnection* connection, int timeout_ms);
    // libdbus's watch callbacks: they keep the connection's read watch, so that a socket found
    // readable is read at once, without the second poll dbus_connection_read_write makes.
    static dbus_bool_t add_watch(DBusWatch* watch, void* data);
    static void remove_watch(DBusWatch* watch, void* data);
    bool dispatch(DBusMessage* message);
    void handle_method_call(DBusMessage* message);
    void handle_signal(DBusMessage* message);
    void handle_return_method(DBusMessage* message) EXCLUDES(m_mutex);
    void handle_error_method(DBusMessage* message);
    void feed_dog_if_due(uint64_t& last_feed);
    CDBusSignal build_feed_dog(const std::string& name, const std::string& path, const std::string& id,
                               int32_t value) const;

    // Set at construction.
    CDBusServer* const m_server;
    const std::string m_address;
    const std::string m_name;
    const std::list<std::string> m_match_rules;

    // Written by connect_to_bus, disconnect and the reader when its loop ends; read by every
    // caller without a lock.
    std::atomic<bool> m_connected{false};
    // False once stop_reading ended the reader: nobody else flushes what is sent then.
    std::atomic<bool> m_reading{false};
    // The connection's read watch while the reader runs; set and cleared by libdbus (add_watch,
    // remove_watch) under its connection lock.
    std::atomic<DBusWatch*> m_read_watch{nullptr};

    // The pointer changes only while the reader is not running (connect_to_bus before starting
    // it, disconnect after stopping it), so the reader keeps a plain copy; every other sender
    // takes this lock so that disconnect cannot close the connection under it.
    Platform::CMutex m_connection_mutex;
    ConnectionPtr m_connection GUARDED_BY(m_connection_mutex);

    // Outstanding outgoing calls by serial. A request is sent and registered under this one lock,
    // so the reader (which matches under it too) never sees a reply before its context. The
    // block-call contexts belong to their waiting block_call; the table owns the others.
    Platform::CMutex m_mutex;
    std::map<uint32_t, BlockCallContext*> m_block_calls GUARDED_BY(m_mutex);
    std::map<uint32_t, std::unique_ptr<UnblockCallContext>> m_unblock_calls GUARDED_BY(m_mutex);

    // Watchdog feeding: set_watchdog and disconnect write these at any time while the reader reads
    // them once per loop turn. The interval (0 = no feeding) is atomic; the two strings are read
    // only when a feed is due, so a small lock of their own is cheap.
    std::atomic<int32_t> m_watchdog_interval{0};
    Platform::CMutex m_watchdog_mutex;
    std::string m_watchdog_path GUARDED_BY(m_watchdog_mutex);
    std::string m_watchdog_id GUARDED_BY(m_watchdog_mutex);
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Quorel

#endif
