// Raw libdbus plumbing of the benchmark: private connections owned by unique_ptr, method calls,
// reply decoding and waiting for a bus name to get an owner. Every connection here is used by
// one thread only.
#ifndef QUOREL_BENCH_BENCH_BUS_H
#define QUOREL_BENCH_BENCH_BUS_H

#include <dbus/dbus.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Bench {

struct CConnectionCloser {
    void operator()(DBusConnection* connection) const {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
};
using CConnection = std::unique_ptr<DBusConnection, CConnectionCloser>;

struct CMessageUnref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using CMessage = std::unique_ptr<DBusMessage, CMessageUnref>;

// Frees a DBusError however the scope is left.
class CErrorGuard {
public:
    CErrorGuard() { dbus_error_init(&m_error); }
    ~CErrorGuard() { dbus_error_free(&m_error); }
    CErrorGuard(const CErrorGuard&) = delete;
    CErrorGuard& operator=(const CErrorGuard&) = delete;
    DBusError* get() { return &m_error; }
    bool is_set() const { return dbus_error_is_set(&m_error); }
    std::string text() const { return is_set() ? std::string(m_error.name) + ": " + m_error.message : ""; }

private:
    DBusError m_error;
};

// Where a method call goes.
struct CTarget {
    std::string destination;
    std::string path;
    std::string interface;
};

// The service's own address on the bus.
CTarget config_manager_target();
// A subscriber's address as the service derives it: "/" + name with dots turned into slashes,
// and the name itself as interface.
CTarget subscriber_target(const std::string& bus_name);

// Opens a private connection and registers it; with a non-empty name also becomes its primary
// owner. Null on failure, with the reason in error.
CConnection open_connection(const std::string& address, const std::string& name, std::string& error);

// A method call carrying the given strings, in order.
CMessage make_call(const CTarget& target, const std::string& member, const std::vector<std::string>& strings);
bool append_int32(DBusMessage* message, int32_t value);

// Blocking call; null on error or time-out, with the reason in error.
CMessage call(DBusConnection* connection, DBusMessage* message, int timeout_ms, std::string& error);

// The leading int32 of a method return (and the string after it when asked for); false for an
// error reply or other argument types.
bool read_code(DBusMessage* reply, int32_t& code);
bool read_code_and_text(DBusMessage* reply, int32_t& code, std::string& text);

// Watches NameOwnerChanged for one name on a connection of its own. start() before the owner
// is launched, so the moment it takes the name cannot be missed.
class CNameWatch {
public:
    bool start(const std::string& address, const std::string& name, std::string& error);
    // True when the name got a (non-empty) owner before the timeout; owned_at is when the
    // signal was read.
    bool wait_owned(std::chrono::milliseconds timeout, std::chrono::steady_clock::time_point& owned_at);

private:
    CConnection m_connection;
    std::string m_name;
};

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
