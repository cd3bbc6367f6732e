#include "bench_monitor.h"

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

const char kKeychainInterface[] = "iot.gateway.security.keychain.sst";
const char kWriteRule[] = "type='method_call',interface='iot.gateway.security.keychain.sst',member='kcAddKey'";

int64_t now_ns() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool become_monitor(DBusConnection* connection, std::string& error) {
    CMessage request(dbus_message_new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                  "org.freedesktop.DBus.Monitoring", "BecomeMonitor"));
    if (!request) return false;
    const char* rules[] = {kWriteRule};
    const char** rules_ptr = rules;
    dbus_uint32_t flags = 0;
    if (!dbus_message_append_args(request.get(), DBUS_TYPE_ARRAY, DBUS_TYPE_STRING, &rules_ptr, 1, DBUS_TYPE_UINT32,
                                  &flags, DBUS_TYPE_INVALID)) {
        return false;
    }
    return call(connection, request.get(), 5000, error) != nullptr;
}

// Older daemons without monitors still honour eavesdropping match rules.
bool eavesdrop(DBusConnection* connection, std::string& error) {
    CErrorGuard bus_error;
    dbus_bus_add_match(connection, (std::string(kWriteRule) + ",eavesdrop='true'").c_str(), bus_error.get());
    error = bus_error.text();
    return !bus_error.is_set();
}

}  // namespace

bool CKeychainWriteCounter::start(const std::string& address, std::string& error) {
    m_connection = open_connection(address, "", error);
    if (!m_connection) return false;
    std::string monitor_error;
    if (!become_monitor(m_connection.get(), monitor_error) && !eavesdrop(m_connection.get(), error)) {
        error = "cannot watch keychain writes: " + monitor_error + " / " + error;
        m_connection.reset();
        return false;
    }
    m_running.store(true, std::memory_order_release);
    m_thread = std::thread(&CKeychainWriteCounter::loop, this);
    return true;
}

void CKeychainWriteCounter::stop() {
    m_running.store(false, std::memory_order_release);
    if (m_thread.joinable()) m_thread.join();
    m_connection.reset();
}

bool CKeychainWriteCounter::wait_quiet(std::chrono::milliseconds quiet, std::chrono::milliseconds timeout) const {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    const int64_t quiet_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(quiet).count();
    while (std::chrono::steady_clock::now() < deadline) {
        if (now_ns() - m_last_write_ns.load(std::memory_order_acquire) >= quiet_ns) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return false;
}

void CKeychainWriteCounter::loop() {
    DBusConnection* connection = m_connection.get();
    while (m_running.load(std::memory_order_acquire)) {
        if (!dbus_connection_read_write(connection, 50)) break;
        while (CMessage message{dbus_connection_pop_message(connection)}) {
            if (!dbus_message_is_method_call(message.get(), kKeychainInterface, "kcAddKey")) continue;
            dbus_int32_t segment = 0;
            dbus_int32_t type = 0;
            dbus_int32_t length = 0;
            if (dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_INT32, &segment, DBUS_TYPE_INT32, &type,
                                      DBUS_TYPE_INT32, &length, DBUS_TYPE_INVALID) &&
                length > 0) {
                m_bytes.fetch_add(static_cast<uint64_t>(length), std::memory_order_acq_rel);
            }
            m_last_write_ns.store(now_ns(), std::memory_order_release);
            m_writes.fetch_add(1, std::memory_order_acq_rel);
        }
    }
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
