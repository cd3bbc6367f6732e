#include "bus_link.h"

#include <string.h>

#include "quorel/keychain/keychain_wire.h"
#include "quorel/log/log.h"

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/tools/mqtt-bridge-devd/bus_link";

using Quorel::Iot::Keychain::CBusError;

}  // namespace

bool is_bus_string(const char* text, size_t length) {
    if (memchr(text, '\0', length) != nullptr) return false;
    // dbus_validate_utf8 wants a terminated string, and is the very check libdbus applies later.
    const std::string copy(text, length);
    return dbus_validate_utf8(copy.c_str(), nullptr);
}

CBusLink::~CBusLink() {
    if (m_connection == nullptr) return;
    if (m_filtering) dbus_connection_remove_filter(m_connection, filter, this);
    dbus_connection_close(m_connection);
    dbus_connection_unref(m_connection);
}

bool CBusLink::open(const std::string& address, const std::string& name, Handler handler) {
    CBusError error;
    m_connection = dbus_connection_open_private(address.c_str(), error.get());
    if (m_connection == nullptr) {
        QLOG(3, "open, cannot open the bus %s: %s", address.c_str(), error.message());
        return false;
    }
    dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
    if (!dbus_bus_register(m_connection, error.get())) {
        QLOG(3, "open, cannot register on %s: %s", address.c_str(), error.message());
        return false;
    }
    const int owned = dbus_bus_request_name(m_connection, name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, error.get());
    if (owned == DBUS_REQUEST_NAME_REPLY_EXISTS) {
        QLOG(3, "open, %s is not ours: another program owns it", name.c_str());
        return false;
    }
    if (owned != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        QLOG(3, "open, %s is not ours (reply %d): %s", name.c_str(), owned, error.message());
        return false;
    }
    m_handler = std::move(handler);
    m_filtering = dbus_connection_add_filter(m_connection, filter, this, nullptr);
    if (!m_filtering) {
        QLOG(3, "open, out of memory");
        return false;
    }
    QLOG(1, "open, serving %s on %s", name.c_str(), address.c_str());
    return true;
}

bool CBusLink::connected() const { return m_connection != nullptr && dbus_connection_get_is_connected(m_connection); }

DBusHandlerResult CBusLink::filter(DBusConnection*, DBusMessage* message, void* self) {
    CBusLink* link = static_cast<CBusLink*>(self);
    return link->m_handler && link->m_handler(message) ? DBUS_HANDLER_RESULT_HANDLED
                                                       : DBUS_HANDLER_RESULT_NOT_YET_HANDLED;
}

bool CBusLink::dispatch(int max_messages) {
    for (int i = 0; i < max_messages; ++i) {
        if (dbus_connection_dispatch(m_connection) != DBUS_DISPATCH_DATA_REMAINS) return false;
    }
    return dbus_connection_get_dispatch_status(m_connection) == DBUS_DISPATCH_DATA_REMAINS;
}

pollfd CBusLink::poll_entry() const {
    pollfd entry{};
    int fd = -1;
    dbus_connection_get_unix_fd(m_connection, &fd);
    entry.fd = fd;
    entry.events = POLLIN;
    if (dbus_connection_has_messages_to_send(m_connection)) entry.events |= POLLOUT;
    return entry;
}

void CBusLink::handle(short revents) {
    // One non-blocking round of libdbus's own reading and writing; a hang-up shows as end of
    // file there and leaves the connection disconnected.
    if (revents != 0) dbus_connection_read_write(m_connection, 0);
}

bool CBusLink::send(DBusMessage* message) { return dbus_connection_send(m_connection, message, nullptr); }

bool CBusLink::reply_text(DBusMessage* call, const std::string& text) {
    if (dbus_message_get_no_reply(call)) return true;
    CMessagePtr reply(dbus_message_new_method_return(call));
    const char* value = text.c_str();
    return reply && dbus_message_append_args(reply.get(), DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID) &&
           send(reply.get());
}

bool CBusLink::reply_error(DBusMessage* call, const char* name, const std::string& text) {
    if (dbus_message_get_no_reply(call)) return true;
    CMessagePtr reply(dbus_message_new_error(call, name, text.c_str()));
    return reply && send(reply.get());
}

size_t CBusLink::backlog() const {
    const long size = dbus_connection_get_outgoing_size(m_connection);
    return size > 0 ? static_cast<size_t>(size) : 0;
}

void CBusLink::flush() {
    if (connected()) dbus_connection_flush(m_connection);
}
