// Test helpers of the bus layer: a service that records what its reader thread delivers, and
// questions to the bus daemon itself.
#ifndef QUOREL_DBUS_TEST_BUS_TEST_SUPPORT_H
#define QUOREL_DBUS_TEST_BUS_TEST_SUPPORT_H

#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <vector>

#include "quorel/dbus/dbus_server.h"
#include "quorel/testsupport/fake_service.h"

namespace Quorel {
namespace Iot {
namespace Testing {

class CRecordingServer : public DBus::CDBusServer {
public:
    using Responder = std::function<void(DBus::CDBusMethodCall&, DBus::CDBusMethodReturn&, bool&)>;

    CRecordingServer(const std::string& address, const std::string& name,
                     const std::list<std::string>& rules = std::list<std::string>())
        : DBus::CDBusServer(address, name, rules) {}
    // Nothing may be delivered to this object once its own part is gone.
    ~CRecordingServer() override { disconnect(); }

    // Runs on the reader thread for every request; without one, requests get an empty reply.
    void respond_with(Responder responder) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_responder = std::move(responder);
    }
    void message_request(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, bool& need_reply) override {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_requests.push_back(request.get_member());
        Responder responder = m_responder;
        lock.unlock();
        if (responder) responder(request, reply, need_reply);
    }
    void message_signal(DBus::CDBusSignal&) override {}
    void message_error(int32_t code) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_errors.push_back(code);
    }

    std::vector<std::string> requests() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_requests;
    }
    std::vector<int32_t> errors() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_errors;
    }

private:
    mutable std::mutex m_mutex;
    Responder m_responder;                // guarded by m_mutex
    std::vector<std::string> m_requests;  // guarded by m_mutex
    std::vector<int32_t> m_errors;        // guarded by m_mutex
};

// A plain client connection without a reader thread of its own, so that its blocking calls always
// get their replies (a CFakeService's dispatch thread may pop a reply before its call() sees it).
class CBusProbe {
public:
    explicit CBusProbe(const std::string& address) {
        DBusError error;
        dbus_error_init(&error);
        m_connection = dbus_connection_open_private(address.c_str(), &error);
        if (m_connection != nullptr && !dbus_bus_register(m_connection, &error)) close();
        dbus_error_free(&error);
    }
    ~CBusProbe() { close(); }
    CBusProbe(const CBusProbe&) = delete;
    CBusProbe& operator=(const CBusProbe&) = delete;

    bool connected() const { return m_connection != nullptr; }

    // Takes over request; a failed call gives a record of type 0.
    CRecordedMessage call(DBusMessage* request, int timeout_ms = 5000) {
        CRecordedMessage recorded;
        if (DBusMessage* reply = exchange(request, timeout_ms)) {
            recorded = record_message(reply);
            dbus_message_unref(reply);
        }
        return recorded;
    }

    // Who owns name; "" when nobody does.
    std::string name_owner(const std::string& name) {
        const CRecordedMessage reply = call(bus_call("GetNameOwner").str(name).take());
        return reply.type == DBUS_MESSAGE_TYPE_METHOD_RETURN && !reply.args.empty() ? reply.args[0] : "";
    }

    // Number of connections on the bus (unique names), this one included.
    size_t connection_count() {
        DBusMessage* reply = exchange(bus_call("ListNames").take(), 5000);
        if (reply == nullptr) return 0;
        size_t count = 0;
        DBusMessageIter iter;
        DBusMessageIter names;
        if (dbus_message_iter_init(reply, &iter) && dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_ARRAY) {
            for (dbus_message_iter_recurse(&iter, &names); dbus_message_iter_get_arg_type(&names) == DBUS_TYPE_STRING;
                 dbus_message_iter_next(&names)) {
                const char* name = nullptr;
                dbus_message_iter_get_basic(&names, &name);
                if (name[0] == ':') ++count;
            }
        }
        dbus_message_unref(reply);
        return count;
    }

private:
    // Takes over request; returns the reply (the caller unrefs it), or null after an error reply.
    DBusMessage* exchange(DBusMessage* request, int timeout_ms) {
        DBusError error;
        dbus_error_init(&error);
        DBusMessage* reply = dbus_connection_send_with_reply_and_block(m_connection, request, timeout_ms, &error);
        dbus_error_free(&error);
        dbus_message_unref(request);
        return reply;
    }
    static CCallBuilder bus_call(const std::string& member) {
        return CCallBuilder("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", member);
    }
    void close() {
        if (m_connection == nullptr) return;
        dbus_connection_close(m_connection);
        dbus_connection_unref(m_connection);
        m_connection = nullptr;
    }

    DBusConnection* m_connection = nullptr;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
