#include "bus_connection.h"

#include <string.h>

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

CallFailure classify(const char* error_name) {
    // Both mean nobody owns the destination: the bus cannot start services on this gateway.
    if (strcmp(error_name, DBUS_ERROR_SERVICE_UNKNOWN) == 0 || strcmp(error_name, DBUS_ERROR_NAME_HAS_NO_OWNER) == 0) {
        return CallFailure::NoService;
    }
    if (strcmp(error_name, DBUS_ERROR_NO_REPLY) == 0 || strcmp(error_name, DBUS_ERROR_TIMEOUT) == 0 ||
        strcmp(error_name, DBUS_ERROR_TIMED_OUT) == 0) {
        return CallFailure::Timeout;
    }
    if (strcmp(error_name, DBUS_ERROR_DISCONNECTED) == 0) return CallFailure::Disconnected;
    return CallFailure::ErrorReply;
}

}  // namespace

bool CBusConnection::open(const std::string& address, std::string& error) {
    CBusError bus_error;
    m_connection.reset(dbus_connection_open_private(address.c_str(), bus_error.get()));
    if (!m_connection) {
        error = bus_error.message();
        return false;
    }
    // A lost bus must end in cmctl's own message and exit status, not in libdbus's _exit(1).
    dbus_connection_set_exit_on_disconnect(m_connection.get(), FALSE);
    if (!dbus_bus_register(m_connection.get(), bus_error.get())) {
        error = bus_error.message();
        m_connection.reset();
        return false;
    }
    return true;
}

DBusMessage* CBusConnection::call(DBusMessage* request, int timeout_ms, CallFailure& failure, std::string& detail) {
    CBusError bus_error;
    DBusMessage* reply =
        dbus_connection_send_with_reply_and_block(m_connection.get(), request, timeout_ms, bus_error.get());
    if (reply != nullptr) {
        failure = CallFailure::None;
        detail.clear();
        return reply;
    }
    failure = bus_error.is_set() ? classify(bus_error.get()->name) : CallFailure::Disconnected;
    detail = bus_error.message();
    return nullptr;
}

bool CBusConnection::request_name(const std::string& name, std::string& error) {
    CBusError bus_error;
    const int result =
        dbus_bus_request_name(m_connection.get(), name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, bus_error.get());
    if (result == DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) return true;
    error = bus_error.is_set() ? bus_error.message() : "another program owns it";
    return false;
}

void CBusConnection::release_name(const std::string& name) {
    CBusError bus_error;
    dbus_bus_release_name(m_connection.get(), name.c_str(), bus_error.get());
}

bool CBusConnection::send(DBusMessage* message) { return dbus_connection_send(m_connection.get(), message, nullptr); }

void CBusConnection::flush() { dbus_connection_flush(m_connection.get()); }

bool CBusConnection::read_write_ready() { return dbus_connection_read_write(m_connection.get(), 0); }

DBusMessage* CBusConnection::pop() { return dbus_connection_pop_message(m_connection.get()); }

int CBusConnection::socket() const {
    int fd = -1;
    if (!dbus_connection_get_socket(m_connection.get(), &fd)) return -1;
    return fd;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
