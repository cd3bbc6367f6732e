#include "quorel/testsupport/bus_client.h"

namespace Quorel {
namespace Iot {
namespace Testing {

CBusClient::CBusClient(const std::string& address) : m_address(address) { dbus_threads_init_default(); }

CBusClient::~CBusClient() { close(); }

bool CBusClient::connect() {
    DBusError error;
    dbus_error_init(&error);
    m_connection = dbus_connection_open_private(m_address.c_str(), &error);
    const bool opened = m_connection != nullptr;
    if (opened) {
        dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
        dbus_bus_register(m_connection, &error);
    }
    const bool ok = opened && !dbus_error_is_set(&error);
    dbus_error_free(&error);
    if (!ok) close();
    return ok;
}

void CBusClient::close() {
    for (DBusPendingCall* pending : m_pending) {
        if (pending == nullptr) continue;
        dbus_pending_call_cancel(pending);
        dbus_pending_call_unref(pending);
    }
    m_pending.clear();
    if (m_connection != nullptr) {
        dbus_connection_close(m_connection);
        dbus_connection_unref(m_connection);
        m_connection = nullptr;
    }
}

size_t CBusClient::send_call(CCallBuilder& builder, int timeout_ms) {
    DBusMessage* message = builder.take();
    DBusPendingCall* pending = nullptr;
    if (m_connection == nullptr || !dbus_connection_send_with_reply(m_connection, message, &pending, timeout_ms)) {
        pending = nullptr;
    }
    dbus_message_unref(message);
    if (m_connection != nullptr) dbus_connection_flush(m_connection);
    m_pending.push_back(pending);
    return m_pending.size() - 1;
}

CRecordedMessage CBusClient::collect(size_t ticket) {
    m_last_error_name.clear();
    CRecordedMessage result;
    if (ticket >= m_pending.size() || m_pending[ticket] == nullptr) return result;
    DBusPendingCall* pending = m_pending[ticket];
    m_pending[ticket] = nullptr;
    dbus_pending_call_block(pending);
    if (DBusMessage* reply = dbus_pending_call_steal_reply(pending)) {
        // libdbus answers a timed-out call with a locally made NoReply error: report that as none.
        const char* error_name = dbus_message_get_error_name(reply);
        const bool local_timeout = error_name != nullptr && std::string(error_name) == DBUS_ERROR_NO_REPLY &&
                                   dbus_message_get_sender(reply) == nullptr;
        if (!local_timeout) {
            result = record_message(reply);
            if (error_name != nullptr) m_last_error_name = error_name;
        }
        dbus_message_unref(reply);
    }
    dbus_pending_call_unref(pending);
    return result;
}

CRecordedMessage CBusClient::call(CCallBuilder& builder, int timeout_ms) {
    return collect(send_call(builder, timeout_ms));
}

std::string CBusClient::unique_name() const {
    const char* name = m_connection != nullptr ? dbus_bus_get_unique_name(m_connection) : nullptr;
    return name != nullptr ? name : "";
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
