// CBusLink: the bridge's private connection to the bus, driven by the bridge's own poll loop
// instead of a blocking dbus_connection_read_write_dispatch: the one thread that sends also does
// all the connection's I/O, so whatever it sends is written on the spot and never waits in the
// outgoing queue for another thread's poll to time out.
#ifndef MQTT_BRIDGE_DEVD_BUS_LINK_H
#define MQTT_BRIDGE_DEVD_BUS_LINK_H

#include <dbus/dbus.h>
#include <poll.h>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

struct CMessageUnref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using CMessagePtr = std::unique_ptr<DBusMessage, CMessageUnref>;

// True when length bytes at text may go into a bus string: valid UTF-8 and no NUL byte. libdbus
// aborts the process when asked to append anything else.
bool is_bus_string(const char* text, size_t length);

class CBusLink {
public:
    // Sees every incoming message; returns true when it has dealt with it.
    using Handler = std::function<bool(DBusMessage* message)>;

    CBusLink() = default;
    ~CBusLink();
    CBusLink(const CBusLink&) = delete;
    CBusLink& operator=(const CBusLink&) = delete;

    // Opens a private connection to address, registers and takes name (not queued behind
    // another owner); false, logged, on any failure.
    bool open(const std::string& address, const std::string& name, Handler handler);
    bool connected() const;

    // Hands up to max_messages queued messages to the handler; true when more are queued.
    bool dispatch(int max_messages);
    // The poll entry for the connection, and what to do once poll has seen revents on it.
    pollfd poll_entry() const;
    void handle(short revents);

    // Queues message and writes as much as the socket takes at once.
    bool send(DBusMessage* message);
    // Replies or sends text as the single string argument of a reply to call.
    bool reply_text(DBusMessage* call, const std::string& text);
    bool reply_error(DBusMessage* call, const char* name, const std::string& text);
    // Bytes queued for the bus that the socket has not taken yet.
    size_t backlog() const;
    // Writes everything still queued, blocking; for shutting down.
    void flush();

private:
    static DBusHandlerResult filter(DBusConnection* connection, DBusMessage* message, void* self);

    DBusConnection* m_connection = nullptr;
    bool m_filtering = false;  // libdbus aborts on removing a filter it never had
    Handler m_handler;
};

#endif
