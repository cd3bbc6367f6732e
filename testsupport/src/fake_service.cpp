#include "quorel/testsupport/fake_service.h"

#include "quorel/testsupport/wait.h"

namespace Quorel {
namespace Iot {
namespace Testing {

namespace {

void render_args(DBusMessageIter* iter, std::vector<std::string>& args) {
    do {
        const int type = dbus_message_iter_get_arg_type(iter);
        if (type == DBUS_TYPE_INVALID) break;
        DBusBasicValue value;
        switch (type) {
            case DBUS_TYPE_STRING:
            case DBUS_TYPE_OBJECT_PATH:
                dbus_message_iter_get_basic(iter, &value);
                args.emplace_back(value.str);
                break;
            case DBUS_TYPE_INT32:
                dbus_message_iter_get_basic(iter, &value);
                args.push_back(std::to_string(value.i32));
                break;
            case DBUS_TYPE_UINT32:
                dbus_message_iter_get_basic(iter, &value);
                args.push_back(std::to_string(value.u32));
                break;
            case DBUS_TYPE_INT64:
                dbus_message_iter_get_basic(iter, &value);
                args.push_back(std::to_string(value.i64));
                break;
            case DBUS_TYPE_UINT64:
                dbus_message_iter_get_basic(iter, &value);
                args.push_back(std::to_string(value.u64));
                break;
            case DBUS_TYPE_BOOLEAN:
                dbus_message_iter_get_basic(iter, &value);
                args.push_back(value.bool_val ? "1" : "0");
                break;
            default:
                args.push_back("<" + std::string(1, static_cast<char>(type)) + ">");
                break;
        }
    } while (dbus_message_iter_next(iter));
}

std::string or_empty(const char* text) { return text != nullptr ? text : ""; }

}  // namespace

CRecordedMessage record_message(DBusMessage* message) {
    CRecordedMessage r;
    r.type = dbus_message_get_type(message);
    r.path = or_empty(dbus_message_get_path(message));
    r.interface = or_empty(dbus_message_get_interface(message));
    r.member = or_empty(dbus_message_get_member(message));
    r.sender = or_empty(dbus_message_get_sender(message));
    r.destination = or_empty(dbus_message_get_destination(message));
    r.signature = or_empty(dbus_message_get_signature(message));
    DBusMessageIter iter;
    if (dbus_message_iter_init(message, &iter)) render_args(&iter, r.args);
    return r;
}

CFakeService::CFakeService(const std::string& address, const std::string& name) : m_address(address), m_name(name) {
    dbus_threads_init_default();
}

CFakeService::~CFakeService() { stop(); }

bool CFakeService::start() {
    DBusError error;
    dbus_error_init(&error);
    m_connection = dbus_connection_open_private(m_address.c_str(), &error);
    if (m_connection == nullptr) {
        dbus_error_free(&error);
        return false;
    }
    dbus_connection_set_exit_on_disconnect(m_connection, FALSE);
    if (!dbus_bus_register(m_connection, &error)) {
        dbus_error_free(&error);
        stop();
        return false;
    }
    if (!m_name.empty()) {
        int ret = dbus_bus_request_name(m_connection, m_name.c_str(), DBUS_NAME_FLAG_DO_NOT_QUEUE, &error);
        if (ret != DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
            dbus_error_free(&error);
            stop();
            return false;
        }
    }
    m_running = true;
    m_thread = std::thread([this] { loop(); });
    return true;
}

void CFakeService::stop() {
    m_running = false;
    if (m_thread.joinable()) m_thread.join();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        for (auto& awaited : m_awaited)
            if (awaited.second != nullptr) dbus_message_unref(awaited.second);
        m_awaited.clear();
    }
    if (m_connection != nullptr) {
        dbus_connection_close(m_connection);
        dbus_connection_unref(m_connection);
        m_connection = nullptr;
    }
}

void CFakeService::on(const std::string& member, Handler handler) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_handlers[member] = std::move(handler);
}

bool CFakeService::add_match(const std::string& rule) {
    if (!m_running) {
        DBusError error;
        dbus_error_init(&error);
        dbus_bus_add_match(m_connection, rule.c_str(), &error);
        const bool ok = !dbus_error_is_set(&error);
        dbus_error_free(&error);
        return ok;
    }
    // Once the dispatch thread reads the connection, a blocking call of libdbus's own could lose
    // its reply to that thread; call() has the thread hand the reply over.
    DBusMessage* request = dbus_message_new_method_call("org.freedesktop.DBus", "/org/freedesktop/DBus",
                                                        "org.freedesktop.DBus", "AddMatch");
    if (request == nullptr) return false;
    const char* text = rule.c_str();
    dbus_message_append_args(request, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    DBusMessage* reply = call(request);
    dbus_message_unref(request);
    const bool ok = reply != nullptr && dbus_message_get_type(reply) == DBUS_MESSAGE_TYPE_METHOD_RETURN;
    if (reply != nullptr) dbus_message_unref(reply);
    return ok;
}

void CFakeService::loop() {
    while (m_running) {
        if (!dbus_connection_read_write(m_connection, 20)) break;
        while (DBusMessage* message = dbus_connection_pop_message(m_connection)) {
            const int type = dbus_message_get_type(message);
            if (type == DBUS_MESSAGE_TYPE_METHOD_RETURN || type == DBUS_MESSAGE_TYPE_ERROR) {
                std::lock_guard<std::mutex> lock(m_mutex);
                auto it = m_awaited.find(dbus_message_get_reply_serial(message));
                if (it != m_awaited.end() && it->second == nullptr) {
                    it->second = dbus_message_ref(message);
                    m_reply_arrived.notify_all();
                }
            } else if (type == DBUS_MESSAGE_TYPE_METHOD_CALL || type == DBUS_MESSAGE_TYPE_SIGNAL) {
                CRecordedMessage record = record_message(message);
                Handler handler;
                {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_received.push_back(record);
                    auto it = m_handlers.find(record.member);
                    if (it != m_handlers.end()) handler = it->second;
                }
                if (type == DBUS_MESSAGE_TYPE_METHOD_CALL && handler) {
                    if (DBusMessage* reply = handler(message)) {
                        dbus_connection_send(m_connection, reply, nullptr);
                        dbus_message_unref(reply);
                    }
                } else if (type == DBUS_MESSAGE_TYPE_SIGNAL && handler) {
                    handler(message);
                }
            }
            dbus_message_unref(message);
        }
    }
}

DBusMessage* CFakeService::call(DBusMessage* request, int timeout_ms) {
    std::unique_lock<std::mutex> lock(m_mutex);
    dbus_uint32_t serial = 0;
    // Registered under the lock before the dispatch thread can look for it.
    if (!dbus_connection_send(m_connection, request, &serial)) return nullptr;
    m_awaited[serial] = nullptr;
    dbus_connection_flush(m_connection);
    m_reply_arrived.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return m_awaited[serial] != nullptr; });
    DBusMessage* reply = m_awaited[serial];
    m_awaited.erase(serial);
    return reply;
}

bool CFakeService::send(DBusMessage* message) {
    const bool ok = dbus_connection_send(m_connection, message, nullptr);
    dbus_connection_flush(m_connection);
    return ok;
}

std::vector<CRecordedMessage> CFakeService::received() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
}

std::vector<CRecordedMessage> CFakeService::received(const std::string& member) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<CRecordedMessage> out;
    for (const auto& r : m_received)
        if (r.member == member) out.push_back(r);
    return out;
}

size_t CFakeService::count(const std::string& member) const { return received(member).size(); }

bool CFakeService::wait_for_count(const std::string& member, size_t n, std::chrono::milliseconds timeout) const {
    return wait_until([&] { return count(member) >= n; }, timeout);
}

void CFakeService::clear_received() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_received.clear();
}

std::string CFakeService::unique_name() const {
    const char* name = m_connection != nullptr ? dbus_bus_get_unique_name(m_connection) : nullptr;
    return or_empty(name);
}

DBusMessage* CFakeService::reply_int(DBusMessage* call, int32_t value) {
    DBusMessage* reply = dbus_message_new_method_return(call);
    dbus_message_append_args(reply, DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID);
    return reply;
}

DBusMessage* CFakeService::reply_string(DBusMessage* call, const std::string& value) {
    DBusMessage* reply = dbus_message_new_method_return(call);
    const char* text = value.c_str();
    dbus_message_append_args(reply, DBUS_TYPE_STRING, &text, DBUS_TYPE_INVALID);
    return reply;
}

DBusMessage* CFakeService::reply_error(DBusMessage* call, const std::string& name, const std::string& text) {
    return dbus_message_new_error(call, name.c_str(), text.c_str());
}

CCallBuilder::CCallBuilder(const std::string& destination, const std::string& path, const std::string& interface,
                           const std::string& member)
    : m_message(dbus_message_new_method_call(destination.c_str(), path.c_str(), interface.c_str(), member.c_str())) {
    dbus_message_iter_init_append(m_message, &m_iter);
}

CCallBuilder::~CCallBuilder() {
    if (m_message != nullptr) dbus_message_unref(m_message);
}

CCallBuilder& CCallBuilder::str(const std::string& value) {
    const char* text = value.c_str();
    dbus_message_iter_append_basic(&m_iter, DBUS_TYPE_STRING, &text);
    return *this;
}

CCallBuilder& CCallBuilder::i32(int32_t value) {
    dbus_message_iter_append_basic(&m_iter, DBUS_TYPE_INT32, &value);
    return *this;
}

CCallBuilder& CCallBuilder::u64(uint64_t value) {
    dbus_uint64_t v = value;
    dbus_message_iter_append_basic(&m_iter, DBUS_TYPE_UINT64, &v);
    return *this;
}

DBusMessage* CCallBuilder::take() {
    DBusMessage* message = m_message;
    m_message = nullptr;
    return message;
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
