#include "bench_bus.h"

#include <algorithm>

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

const char kBusName[] = "org.freedesktop.DBus";
const char kBusPath[] = "/org/freedesktop/DBus";

bool has_owner(DBusConnection* connection, const std::string& name) {
    CErrorGuard error;
    return dbus_bus_name_has_owner(connection, name.c_str(), error.get()) != FALSE;
}

}  // namespace

CTarget config_manager_target() { return {"iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager"}; }

CTarget subscriber_target(const std::string& bus_name) {
    std::string path = "/" + bus_name;
    std::replace(path.begin(), path.end(), '.', '/');
    return {bus_name, path, bus_name};
}

CConnection open_connection(const std::string& address, const std::string& name, std::string& error) {
    CErrorGuard bus_error;
    CConnection connection(dbus_connection_open_private(address.c_str(), bus_error.get()));
    if (!connection) {
        error = "cannot connect to " + address + ": " + bus_error.text();
        return nullptr;
    }
    dbus_connection_set_exit_on_disconnect(connection.get(), FALSE);
    if (!dbus_bus_register(connection.get(), bus_error.get())) {
        error = "cannot register: " + bus_error.text();
        return nullptr;
    }
    if (!name.empty()) {
        const int result =
            dbus_bus_request_name(connection.get(), name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, bus_error.get());
        if (result != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
            error = "cannot own " + name + ": " + bus_error.text();
            return nullptr;
        }
    }
    return connection;
}

CMessage make_call(const CTarget& target, const std::string& member, const std::vector<std::string>& strings) {
    CMessage message(dbus_message_new_method_call(target.destination.c_str(), target.path.c_str(),
                                                  target.interface.c_str(), member.c_str()));
    if (!message) return nullptr;
    DBusMessageIter iter;
    dbus_message_iter_init_append(message.get(), &iter);
    for (const std::string& text : strings) {
        const char* raw = text.c_str();
        if (!dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &raw)) return nullptr;
    }
    return message;
}

bool append_int32(DBusMessage* message, int32_t value) {
    dbus_int32_t raw = value;
    return dbus_message_append_args(message, DBUS_TYPE_INT32, &raw, DBUS_TYPE_INVALID) != FALSE;
}

CMessage call(DBusConnection* connection, DBusMessage* message, int timeout_ms, std::string& error) {
    CErrorGuard bus_error;
    CMessage reply(dbus_connection_send_with_reply_and_block(connection, message, timeout_ms, bus_error.get()));
    if (!reply) error = bus_error.text();
    return reply;
}

bool read_code(DBusMessage* reply, int32_t& code) {
    if (reply == nullptr || dbus_message_get_type(reply) != DBUS_MESSAGE_TYPE_METHOD_RETURN) return false;
    DBusMessageIter iter;
    if (!dbus_message_iter_init(reply, &iter) || dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_INT32) {
        return false;
    }
    dbus_int32_t raw = 0;
    dbus_message_iter_get_basic(&iter, &raw);
    code = raw;
    return true;
}

bool read_code_and_text(DBusMessage* reply, int32_t& code, std::string& text) {
    if (!read_code(reply, code)) return false;
    DBusMessageIter iter;
    dbus_message_iter_init(reply, &iter);
    if (!dbus_message_iter_next(&iter) || dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_STRING) return false;
    const char* raw = nullptr;
    dbus_message_iter_get_basic(&iter, &raw);
    text = raw;
    return true;
}

bool CNameWatch::start(const std::string& address, const std::string& name, std::string& error) {
    m_name = name;
    m_connection = open_connection(address, "", error);
    if (!m_connection) return false;
    const std::string rule = std::string("type='signal',sender='") + kBusName + "',path='" + kBusPath +
                             "',interface='" + kBusName + "',member='NameOwnerChanged',arg0='" + name + "'";
    CErrorGuard bus_error;
    dbus_bus_add_match(m_connection.get(), rule.c_str(), bus_error.get());
    if (bus_error.is_set()) {
        error = "cannot watch " + name + ": " + bus_error.text();
        m_connection.reset();
        return false;
    }
    return true;
}

bool CNameWatch::wait_owned(std::chrono::milliseconds timeout, std::chrono::steady_clock::time_point& owned_at) {
    if (!m_connection) return false;
    DBusConnection* connection = m_connection.get();
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (std::chrono::steady_clock::now() < deadline) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!dbus_connection_read_write(connection, static_cast<int>(std::max<long long>(1, left.count())))) break;
        while (CMessage message{dbus_connection_pop_message(connection)}) {
            if (!dbus_message_is_signal(message.get(), kBusName, "NameOwnerChanged")) continue;
            const char* name = nullptr;
            const char* old_owner = nullptr;
            const char* new_owner = nullptr;
            if (dbus_message_get_args(message.get(), nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &old_owner,
                                      DBUS_TYPE_STRING, &new_owner, DBUS_TYPE_INVALID) &&
                m_name == name && new_owner[0] != '\0') {
                owned_at = std::chrono::steady_clock::now();
                return true;
            }
        }
    }
    // The signal may have been missed if the owner was already there before start().
    owned_at = std::chrono::steady_clock::now();
    return has_owner(connection, m_name);
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
