#include "watchdog_listener.h"

#include <stdio.h>

namespace {

constexpr const char kName[] = "iot.gateway.watchdog";
constexpr const char kFeedMember[] = "feedDog";

using Quorel::Iot::Keychain::CBusError;

}  // namespace

bool CWatchdogListener::connect(const std::string& address) {
    CBusError error;
    m_connection.reset(dbus_connection_open_private(address.c_str(), error.get()));
    if (!m_connection) {
        fprintf(stderr, "watchdog-devd: cannot open %s: %s\n", address.c_str(), error.message());
        return false;
    }
    dbus_connection_set_exit_on_disconnect(m_connection.get(), FALSE);
    if (!dbus_bus_register(m_connection.get(), error.get())) {
        fprintf(stderr, "watchdog-devd: cannot register: %s\n", error.message());
        return false;
    }
    const int owned = dbus_bus_request_name(m_connection.get(), kName, DBUS_NAME_FLAG_DO_NOT_QUEUE, error.get());
    if (owned != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
        fprintf(stderr, "watchdog-devd: %s is not ours (%d)\n", kName, owned);
        return false;
    }
    print_line(std::string("watchdog listening as ") + kName + " on " + address);
    return true;
}

bool CWatchdogListener::run(const volatile sig_atomic_t& stop) {
    while (stop == 0) {
        if (!dbus_connection_read_write(m_connection.get(), 100)) {
            fprintf(stderr, "watchdog-devd: lost the bus\n");
            return false;
        }
        while (DBusMessage* message = dbus_connection_pop_message(m_connection.get())) {
            if (dbus_message_is_signal(message, kName, kFeedMember)) {
                handle_feed(message);
            } else if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL &&
                       !dbus_message_get_no_reply(message)) {
                DBusMessage* error =
                    dbus_message_new_error(message, DBUS_ERROR_UNKNOWN_METHOD, "only feedDog is heard");
                if (error != nullptr) {
                    dbus_connection_send(m_connection.get(), error, nullptr);
                    dbus_message_unref(error);
                }
            }
            dbus_message_unref(message);
        }
        check_overdue();
    }
    return true;
}

void CWatchdogListener::handle_feed(DBusMessage* signal) {
    const char* sender_text = dbus_message_get_sender(signal);
    const std::string sender = sender_text != nullptr ? sender_text : "(no sender)";
    const char* name = nullptr;
    const char* id = nullptr;
    dbus_int32_t timeout_s = 0;
    if (!dbus_message_get_args(signal, nullptr, DBUS_TYPE_STRING, &name, DBUS_TYPE_STRING, &id, DBUS_TYPE_INT32,
                               &timeout_s, DBUS_TYPE_INVALID)) {
        print_line(std::string("feedDog with arguments ") + dbus_message_get_signature(signal) +
                   " instead of (ssi) from " + sender + ", ignored");
        return;
    }
    // The name is the feeder's own word; a flood of invented names must not grow the table.
    if (m_feeders.size() >= 256 && m_feeders.count(name) == 0) return;
    Feeder& feeder = m_feeders[name];
    feeder.last = std::chrono::steady_clock::now();
    feeder.timeout_s = timeout_s;
    feeder.overdue = false;
    print_line(std::string("feedDog ") + name + " id=" + id + " timeout=" + std::to_string(timeout_s) + " s from " +
               sender);
}

void CWatchdogListener::check_overdue() {
    const auto now = std::chrono::steady_clock::now();
    for (auto& entry : m_feeders) {
        Feeder& feeder = entry.second;
        if (feeder.overdue || feeder.timeout_s <= 0) continue;
        if (now - feeder.last > std::chrono::seconds(feeder.timeout_s)) {
            feeder.overdue = true;
            print_line("OVERDUE " + entry.first + ": no feedDog for " + std::to_string(feeder.timeout_s) +
                       " s; a gateway's watchdog would restart the device now");
        }
    }
}
