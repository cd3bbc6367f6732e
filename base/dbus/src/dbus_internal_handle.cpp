#include "quorel/dbus/dbus_internal_handle.h"

#include <poll.h>
#include <time.h>

#include <exception>
#include <utility>

#include "dbus_error_guard.h"
#include "quorel/dbus/dbus_server.h"
#include "quorel/log/log.h"
#include "quorel/platform/service_manager.h"

namespace Quorel {
namespace Iot {
namespace DBus {

namespace {

// The reader looks at the time on every pass, that is for every message: the coarse monotonic
// clock is read without a system call, where the tick's times(2) is one. Watchdog intervals are
// seconds; its few milliseconds of coarseness do not matter.
uint64_t loop_clock_ms() {
    struct timespec ts = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}
constexpr const char kLogFile[] = "core-services/config-manager/base/dbus/src/dbus_internal_handle.cpp";
constexpr const char kThreadName[] = "DBus_handle_thread";
constexpr uint32_t kThreadPriority = 64;
constexpr int kReadTimeoutMs = 100;
constexpr const char kWatchdogService[] = "iot.gateway.watchdog";
constexpr const char kFeedDogMember[] = "feedDog";
}  // namespace

struct CDBusInternalHandle::BlockCallContext {
    Platform::CSemaphore semaphore{0};
    // Written by the reader under m_mutex before it posts; read by block_call after the wait.
    CDBusMethodReturn reply{nullptr};
    bool closed = false;  // set by disconnect under m_mutex
};

struct CDBusInternalHandle::UnblockCallContext {
    DBusCallback callback;
    void* user_data;
};

void CDBusInternalHandle::ConnectionCloser::operator()(DBusConnection* connection) const {
    dbus_connection_close(connection);
    dbus_connection_unref(connection);
}

CDBusInternalHandle::CDBusInternalHandle(CDBusServer* server, const std::string& address, const std::string& name,
                                         const std::list<std::string>& rules)
    : Platform::CThread(kThreadName, POLICY_NORMAL, kThreadPriority, 0),
      m_server(server),
      m_address(address),
      m_name(name),
      m_match_rules(rules) {}

CDBusInternalHandle::~CDBusInternalHandle() {
    disconnect();
    // After a lost connection disconnect does nothing, yet the reader may still be on its way out;
    // it must be gone before the fields it uses are.
    stop();
}

int32_t CDBusInternalHandle::check_and_abort(DBusError* error) {
    if (!dbus_error_is_set(error)) return 0;
    QLOG(3, "dbus error:%s.", error->message);
    dbus_error_free(error);
    return -1;
}

int32_t CDBusInternalHandle::connect_to_bus() {
    if (m_connected.load(std::memory_order_acquire)) {
        QLOG(3, "dbus already connected.");
        return -1;
    }
    // Requests and replies are sent from several threads while the reader reads.
    dbus_threads_init_default();
    CDBusErrorGuard error;
    ConnectionPtr connection(dbus_connection_open_private(m_address.c_str(), error.get()));
    if (check_and_abort(error.get()) != 0 || !connection) {
        QLOG(3, "dbus connection open fail, address:%s.", m_address.c_str());
        return -2;
    }
    // Losing the bus must reach message_error so that the service shuts down in order, instead of
    // libdbus ending the process.
    dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
    // From here on every failure leaves through the connection's guard, which closes it.
    const dbus_bool_t registered = dbus_bus_register(connection.get(), error.get());
    if (check_and_abort(error.get()) != 0 || !registered) {
        QLOG(3, "dbus register fail.");
        return -3;
    }
    const int reply = dbus_bus_request_name(connection.get(), m_name.c_str(), 0, error.get());
    if (check_and_abort(error.get()) != 0 || reply != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        // A queued request disappears with the connection, so there is nothing to release.
        QLOG(3, "dbus request name fail, name:%s.", m_name.c_str());
        return -4;
    }
    for (const std::string& rule : m_match_rules) {
        dbus_bus_add_match(connection.get(), rule.c_str(), error.get());
        if (check_and_abort(error.get()) != 0) {
            QLOG(3, "dbus add match fail, rule:%s.", rule.c_str());
            release_name(connection.get());
            return -5;
        }
    }

    DBusConnection* const raw = connection.get();
    {
        Platform::CMutexGuard guard(m_connection_mutex);
        m_connection = std::move(connection);
    }
    // Raised before the reader starts: the reader leaves its loop when it sees the flag down, and
    // a message arriving at once could otherwise end the loop before connect_to_bus returns.
    m_connected.store(true, std::memory_order_release);
    m_reading.store(true, std::memory_order_release);
    if (!start()) {
        m_connected.store(false, std::memory_order_release);
        m_reading.store(false, std::memory_order_release);
        QLOG(3, "create thread fail.");
        release_name(raw);
        Platform::CMutexGuard guard(m_connection_mutex);
        m_connection.reset();
        return -6;
    }
    QLOG(1, "connect to bus success, address:%s, name:%s.", m_address.c_str(), m_name.c_str());
    return 0;
}

void CDBusInternalHandle::release_name(DBusConnection* connection) {
    CDBusErrorGuard error;
    dbus_bus_release_name(connection, m_name.c_str(), error.get());
    check_and_abort(error.get());
}

void CDBusInternalHandle::disconnect() {
    if (!m_connected.exchange(false, std::memory_order_acq_rel)) return;
    stop();
    m_reading.store(false, std::memory_order_release);
    abort_pending_calls();
    ConnectionPtr connection;
    {
        Platform::CMutexGuard guard(m_connection_mutex);
        connection = std::move(m_connection);
    }
    if (connection) {
        // Replies sent since the reader's last turn are still queued; closing would drop them.
        dbus_connection_flush(connection.get());
        release_name(connection.get());
    }
    connection.reset();
    m_watchdog_interval.store(0, std::memory_order_release);
    Platform::CMutexGuard guard(m_watchdog_mutex);
    m_watchdog_path.clear();
    m_watchdog_id.clear();
}

void CDBusInternalHandle::abort_pending_calls() {
    Platform::CMutexGuard guard(m_mutex);
    for (auto& entry : m_block_calls) {
        entry.second->closed = true;
        entry.second->semaphore.post();
    }
    m_block_calls.clear();
    // The callbacks run with the lock held, so they must not call back into this handle.
    for (auto& entry : m_unblock_calls) {
        CDBusMethodReturn empty_reply;
        entry.second->callback(1, &empty_reply, entry.second->user_data);
    }
    m_unblock_calls.clear();
}

bool CDBusInternalHandle::send_message(DBusMessage* message, uint32_t* serial) {
    if (message == nullptr) return false;
    Platform::CMutexGuard guard(m_connection_mutex);
    if (!m_connection) return false;
    dbus_uint32_t sent_serial = 0;
    const dbus_bool_t sent = dbus_connection_send(m_connection.get(), message, &sent_serial);
    if (serial != nullptr) *serial = sent_serial;
    return sent;
}

int32_t CDBusInternalHandle::block_call(CDBusMessage& request, CDBusMessage& reply, uint32_t timeout_ms) {
    std::unique_ptr<BlockCallContext> context;
    uint32_t serial = 0;
    {
        // The flag is checked under the lock as well, so a call cannot register after disconnect
        // has drained the table and then wait for a reply that nobody will deliver.
        Platform::CMutexGuard guard(m_mutex);
        if (!m_connected.load(std::memory_order_acquire)) {
            QLOG(3, "block_call, dbus disconnected.");
            return -1;
        }
        if (!send_message(request.get_message(), &serial)) {
            QLOG(3, "block_call, dbus connection send fail.");
            return -2;
        }
        context = std::make_unique<BlockCallContext>();
        m_block_calls[serial] = context.get();
    }
    // The reply is taken the moment the reader posts it, not at the next 50 ms polling step.
    const bool answered = timeout_ms == 0 ? context->semaphore.wait(0) : context->semaphore.wait_for(timeout_ms);
    bool closed = false;
    {
        Platform::CMutexGuard guard(m_mutex);
        m_block_calls.erase(serial);
        closed = context->closed;
    }
    if (closed || !answered) {
        QLOG(3, "dbus wait response timeout, close:%d, timeout:%d, client_serial:%d.", closed ? 1 : 0, answered ? 0 : 1,
             static_cast<int>(serial));
    } else {
        reply = context->reply;
    }
    if (closed) return -4;
    if (!answered) return -3;
    if (!context->reply.is_method_return()) return -5;
    return 0;
}

int32_t CDBusInternalHandle::unblock_call(CDBusMessage& request, void* user_data, const DBusCallback& callback) {
    Platform::CMutexGuard guard(m_mutex);
    if (!m_connected.load(std::memory_order_acquire)) {
        QLOG(3, "dbus already connected.");
        return -1;
    }
    uint32_t serial = 0;
    if (!send_message(request.get_message(), &serial)) {
        QLOG(3, "dbus connection send fail.");
        return -2;
    }
    m_unblock_calls[serial] = std::unique_ptr<UnblockCallContext>(new UnblockCallContext{callback, user_data});
    return 0;
}

int32_t CDBusInternalHandle::send_no_reply(CDBusMessage& request) {
    if (!m_connected.load(std::memory_order_acquire)) {
        QLOG(3, "send_no_reply, dbus disconnected.");
        return -1;
    }
    if (request.get_message() != nullptr) dbus_message_set_no_reply(request.get_message(), TRUE);
    if (!send_message(request.get_message(), nullptr)) {
        QLOG(3, "send_no_reply, dbus connection send fail.");
        return -2;
    }
    return 0;
}

void CDBusInternalHandle::stop_reading() {
    if (!m_connected.load(std::memory_order_acquire)) return;
    stop();
    m_reading.store(false, std::memory_order_release);
}

bool CDBusInternalHandle::send_dbus_reply(CDBusMessage& reply) {
    if (!m_connected.load(std::memory_order_acquire)) {
        QLOG(3, "dbus already disconnected.");
        return false;
    }
    if (!send_message(reply.get_message(), nullptr)) return false;
    if (!m_reading.load(std::memory_order_acquire)) {
        Platform::CMutexGuard guard(m_connection_mutex);
        if (m_connection) dbus_connection_flush(m_connection.get());
    }
    return true;
}

bool CDBusInternalHandle::set_watchdog(const std::string& path, const std::string& id, uint32_t interval_s) {
    {
        Platform::CMutexGuard guard(m_watchdog_mutex);
        m_watchdog_path = path;
        m_watchdog_id = id;
    }
    m_watchdog_interval.store(static_cast<int32_t>(interval_s), std::memory_order_release);
    return true;
}

void CDBusInternalHandle::threadProc() {
    QLOG(1, "threadProc, dbus begin loop read message.");
    DBusConnection* connection = nullptr;
    {
        Platform::CMutexGuard guard(m_connection_mutex);
        connection = m_connection.get();
    }
    dbus_connection_set_watch_functions(connection, &CDBusInternalHandle::add_watch, &CDBusInternalHandle::remove_watch,
                                        nullptr, this, nullptr);
    uint64_t last_feed = loop_clock_ms();
    // The service manager's watchdog is fed from this same loop, next to the gateway's, so that a
    // reader that hangs stops both.
    const uint64_t manager_ping_ms = Platform::watchdog_ping_interval_ms();
    uint64_t last_manager_ping = 0;
    while (is_running()) {
        feed_dog_if_due(last_feed);
        if (manager_ping_ms > 0 && m_watchdog_interval.load(std::memory_order_acquire) > 0 &&
            loop_clock_ms() - last_manager_ping >= manager_ping_ms) {
            last_manager_ping = loop_clock_ms();
            Platform::notify_watchdog();
        }
        const short revents = wait_for_traffic(connection, kReadTimeoutMs);
        DBusWatch* read_watch = m_read_watch.load(std::memory_order_acquire);
        dbus_bool_t bret = TRUE;
        if (revents == POLLIN && read_watch != nullptr) {
            // Only readable: read now. Anything else (a hang-up, an error, pending output, no
            // poll at all) goes through read_write, which also tells a lost connection.
            dbus_watch_handle(read_watch, DBUS_WATCH_READABLE);
        } else {
            bret = dbus_connection_read_write(connection, 0);
        }
        if (!bret) {
            QLOG(1, "threadProc, dbus_connection_read_write bret:%d.", static_cast<int>(bret));
            m_server->message_error(-1);
            break;
        }
        if (!m_connected.load(std::memory_order_acquire)) {
            QLOG(1, "threadProc, m_connected:%d.", 0);
            break;
        }
        while (m_connected.load(std::memory_order_acquire)) {
            DBusMessage* message = dbus_connection_pop_message(connection);
            if (message == nullptr) break;
            if (!dispatch(message)) {
                QLOG(3, "dbus read a unknow message, type:%d.", dbus_message_get_type(message));
            }
            dbus_message_unref(message);
        }
    }
    // Asked to stop (disconnect, or stop_reading, which keeps the connection for last replies):
    // the flag belongs to the caller. Otherwise the connection is lost or dropped.
    if (is_running()) m_connected.store(false, std::memory_order_release);
    // The watches go back to libdbus: remove_watch runs for each before this returns.
    dbus_connection_set_watch_functions(connection, nullptr, nullptr, nullptr, nullptr, nullptr);
    QLOG(1, "threadProc, dbus end loop read message.");
}

dbus_bool_t CDBusInternalHandle::add_watch(DBusWatch* watch, void* data) {
    if ((dbus_watch_get_flags(watch) & DBUS_WATCH_READABLE) != 0) {
        static_cast<CDBusInternalHandle*>(data)->m_read_watch.store(watch, std::memory_order_release);
    }
    return TRUE;
}

void CDBusInternalHandle::remove_watch(DBusWatch* watch, void* data) {
    DBusWatch* expected = watch;
    static_cast<CDBusInternalHandle*>(data)->m_read_watch.compare_exchange_strong(expected, nullptr);
}

// The reader waits in its own poll rather than inside libdbus: while libdbus blocks in a read it
// holds the connection's I/O path, and a message that another thread sends meanwhile (a blocking
// call, a reply, a notification) would sit in the outgoing queue until that read timed out.
short CDBusInternalHandle::wait_for_traffic(DBusConnection* connection, int timeout_ms) {
    if (dbus_connection_get_dispatch_status(connection) == DBUS_DISPATCH_DATA_REMAINS) return 0;
    int fd = -1;
    if (!dbus_connection_get_socket(connection, &fd) || fd < 0) return 0;
    pollfd entry{};
    entry.fd = fd;
    entry.events = POLLIN;
    // What a sender could not write at once is written by this thread as soon as the socket takes it.
    if (dbus_connection_has_messages_to_send(connection)) entry.events |= POLLOUT;
    return poll(&entry, 1, timeout_ms) == 1 ? entry.revents : 0;
}

bool CDBusInternalHandle::dispatch(DBusMessage* message) {
    // The service's handlers are ours to call, not libdbus's, but an exception escaping them would
    // end the reader thread and with it the service; log it and go on with the next message.
    try {
        const int type = dbus_message_get_type(message);
        switch (type) {
            case DBUS_MESSAGE_TYPE_METHOD_CALL:
                handle_method_call(message);
                break;
            case DBUS_MESSAGE_TYPE_METHOD_RETURN:
                handle_return_method(message);
                break;
            case DBUS_MESSAGE_TYPE_SIGNAL:
                handle_signal(message);
                break;
            case DBUS_MESSAGE_TYPE_ERROR:
                handle_error_method(message);
                break;
            default:
                return false;
        }
    } catch (const std::exception& e) {
        QLOG(3, "dispatch, exception:%s.", e.what());
    }
    return true;
}

void CDBusInternalHandle::handle_method_call(DBusMessage* message) {
    CDBusMethodCall request(message);
    DBusMessage* created = dbus_message_new_method_return(message);
    // The holder takes its own reference; a service answering later keeps another one.
    CDBusMethodReturn reply(created);
    if (created != nullptr) dbus_message_unref(created);
    bool need_reply = true;
    m_server->message_request(request, reply, need_reply);
    if (need_reply) send_message(reply.get_message(), nullptr);
}

void CDBusInternalHandle::handle_signal(DBusMessage* message) {
    CDBusSignal signal(message);
    m_server->message_signal(signal);
}

void CDBusInternalHandle::handle_error_method(DBusMessage* message) {
    const char* name = dbus_message_get_error_name(message);
    QLOG(1, "handle_error_method, name:%s.", name != nullptr ? name : "");
    handle_return_method(message);
}

void CDBusInternalHandle::handle_return_method(DBusMessage* message) {
    const uint32_t serial = dbus_message_get_reply_serial(message);
    std::unique_ptr<UnblockCallContext> context;
    {
        Platform::CMutexGuard guard(m_mutex);
        auto block = m_block_calls.find(serial);
        if (block != m_block_calls.end()) {
            // The entry stays: block_call erases it after its wait.
            block->second->reply = CDBusMethodReturn(message);
            block->second->semaphore.post();
            return;
        }
        auto unblock = m_unblock_calls.find(serial);
        if (unblock == m_unblock_calls.end()) {
            QLOG(1, "handle_return_method, no match, reply serial:%d.", static_cast<int>(serial));
            return;
        }
        // Taken out before the callback runs, so that nothing else can complete it a second time.
        context = std::move(unblock->second);
        m_unblock_calls.erase(unblock);
    }
    // Without the lock: the callback may issue new calls on this handle.
    CDBusMethodReturn reply(message);
    context->callback(0, &reply, context->user_data);
}

void CDBusInternalHandle::feed_dog_if_due(uint64_t& last_feed) {
    const int32_t interval = m_watchdog_interval.load(std::memory_order_acquire);
    if (interval <= 0) return;
    const uint64_t now = loop_clock_ms();
    if ((now - last_feed) / 1000 <= static_cast<uint64_t>(interval)) return;
    std::string path;
    std::string id;
    {
        Platform::CMutexGuard guard(m_watchdog_mutex);
        path = m_watchdog_path;
        id = m_watchdog_id;
    }
    last_feed = now;
    // libdbus refuses (with a warning on stderr) to build a signal on an invalid path.
    if (!dbus_validate_path(path.c_str(), nullptr)) return;
    CDBusSignal feed = build_feed_dog(m_name, path, id, 2 * interval);
    send_message(feed.get_message(), nullptr);
}

CDBusSignal CDBusInternalHandle::build_feed_dog(const std::string& name, const std::string& path, const std::string& id,
                                                int32_t value) const {
    CDBusSignal feed(path, kWatchdogService, kFeedDogMember);
    if (feed.empty()) return feed;
    dbus_message_set_destination(feed.get_message(), kWatchdogService);
    feed.set_string(name);
    feed.set_string(id);
    feed.set_int32(value);
    return feed;
}

}  // namespace DBus
}  // namespace Iot
}  // namespace Quorel
