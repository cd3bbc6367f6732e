#include "quorel/testsupport/fake_subscriber.h"

#include "quorel/testsupport/wait.h"

namespace Quorel {
namespace Iot {
namespace Testing {

CFakeSubscriber::CFakeSubscriber(const std::string& address, const std::string& name) : CFakeService(address, name) {
    on("notify_config", [this](DBusMessage* call) { return handle_notify(call); });
}

CFakeSubscriber::~CFakeSubscriber() {
    // The dispatch thread must be gone before the held calls are released.
    stop();
    for (DBusMessage* call : m_held)
        if (call != nullptr) dbus_message_unref(call);
}

std::string CFakeSubscriber::object_path_of(const std::string& name) {
    std::string path = "/" + name;
    for (char& c : path)
        if (c == '.') c = '/';
    return path;
}

void CFakeSubscriber::answer_code(int32_t code) {
    std::lock_guard<std::mutex> lock(m_answer_mutex);
    m_mode = Mode::Code;
    m_code = code;
}

void CFakeSubscriber::answer_string(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_answer_mutex);
    m_mode = Mode::String;
    m_text = text;
}

void CFakeSubscriber::answer_error(const std::string& error_name) {
    std::lock_guard<std::mutex> lock(m_answer_mutex);
    m_mode = Mode::Error;
    m_text = error_name;
}

void CFakeSubscriber::answer_nothing() {
    std::lock_guard<std::mutex> lock(m_answer_mutex);
    m_mode = Mode::Nothing;
}

void CFakeSubscriber::hold_answers() {
    std::lock_guard<std::mutex> lock(m_answer_mutex);
    m_mode = Mode::Hold;
}

size_t CFakeSubscriber::held_count() const {
    std::lock_guard<std::mutex> lock(m_answer_mutex);
    return m_held.size();
}

bool CFakeSubscriber::answer_held(size_t index, int32_t code) {
    DBusMessage* call = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_answer_mutex);
        if (index >= m_held.size() || m_held[index] == nullptr) return false;
        call = m_held[index];
        m_held[index] = nullptr;  // keep the indexes of the others stable
    }
    DBusMessage* reply = reply_int(call, code);
    const bool sent = send(reply);
    dbus_message_unref(reply);
    dbus_message_unref(call);
    return sent;
}

std::vector<std::pair<std::string, std::string>> CFakeSubscriber::notifications() const {
    std::lock_guard<std::mutex> lock(m_answer_mutex);
    return m_notifications;
}

bool CFakeSubscriber::wait_for_notifications(size_t n) const {
    return wait_until([&] { return notifications().size() >= n; });
}

DBusMessage* CFakeSubscriber::handle_notify(DBusMessage* call) {
    const char* path = dbus_message_get_path(call);
    const char* interface = dbus_message_get_interface(call);
    if (path == nullptr || interface == nullptr || object_path_of(name()) != path || name() != interface) {
        return reply_error(call, DBUS_ERROR_UNKNOWN_METHOD, "notify_config is served elsewhere");
    }
    const char* key = nullptr;
    const char* value = nullptr;
    if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &key, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID)) {
        return reply_error(call, DBUS_ERROR_INVALID_ARGS, "notify_config takes (s key, s value)");
    }
    std::lock_guard<std::mutex> lock(m_answer_mutex);
    m_notifications.emplace_back(key, value);
    switch (m_mode) {
        case Mode::Code:
            return reply_int(call, m_code);
        case Mode::String:
            return reply_string(call, m_text);
        case Mode::Error:
            return reply_error(call, m_text, "refused by the test");
        case Mode::Nothing:
            return nullptr;
        case Mode::Hold:
            m_held.push_back(dbus_message_ref(call));
            return nullptr;
    }
    return nullptr;
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
