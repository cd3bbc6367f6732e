#include "subscriber_session.h"

#include <errno.h>
#include <poll.h>
#include <string.h>

#include <algorithm>

#include "failure.h"
#include "text_format.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

constexpr char kNotifyMember[] = "notify_config";

bool is_disconnect(DBusMessage* message) {
    return dbus_message_is_signal(message, DBUS_INTERFACE_LOCAL, "Disconnected");
}

void reply_unknown(CBusConnection& bus, DBusMessage* call) {
    if (dbus_message_get_no_reply(call)) return;
    const char* member = dbus_message_get_member(call);
    DBusMessage* error = dbus_message_new_error_printf(call, DBUS_ERROR_UNKNOWN_METHOD, "%s is not served here",
                                                       member != nullptr ? member : "this");
    if (error == nullptr) return;
    bus.send(error);
    dbus_message_unref(error);
}

}  // namespace

CQuestion::CQuestion(DBusMessage* call, std::string key, std::string value, uint64_t arrived_ms)
    : m_call(dbus_message_ref(call), dbus_message_unref),
      m_key(std::move(key)),
      m_value(std::move(value)),
      m_arrived_ms(arrived_ms) {}

bool CSubscriberSession::is_callable_name(const std::string& name) {
    return !name.empty() && name[0] != ':' && dbus_validate_bus_name(name.c_str(), nullptr) &&
           dbus_validate_interface(name.c_str(), nullptr) && dbus_validate_path(object_path_of(name).c_str(), nullptr);
}

std::string CSubscriberSession::object_path_of(const std::string& name) {
    std::string path = "/" + name;
    std::replace(path.begin(), path.end(), '.', '/');
    return path;
}

CSubscriberSession::CSubscriberSession(CContext& context, std::string name, int32_t type, CListener& listener)
    : m_context(context), m_name(std::move(name)), m_path(object_path_of(m_name)), m_type(type), m_listener(listener) {}

int CSubscriberSession::start(const std::vector<std::string>& keys) {
    std::string error;
    if (!m_context.bus().request_name(m_name, error)) {
        print_error(m_name, "cannot take the bus name: " + error);
        return kExitFailure;
    }
    m_have_name = true;
    for (const std::string& key : keys) {
        if (std::find(m_subscribed.begin(), m_subscribed.end(), key) != m_subscribed.end()) continue;
        const CAnswer answer = m_context.client().subscribe(m_name, key, m_type);
        if (!answer.ok()) {
            const int status = report_failure(answer, Request::Subscribe, key, m_context.timeout_ms());
            finish();
            return status;
        }
        m_subscribed.push_back(key);
    }
    return kExitOk;
}

int CSubscriberSession::run(CStopSignals& signals, int input_fd) {
    CBusConnection& bus = m_context.bus();
    while (true) {
        dispatch_queued();
        bus.flush();
        if (m_lost) {
            print_error(m_name, "lost the bus");
            return kExitUnreachable;
        }
        if (m_stop_requested) return m_stop_status;
        struct pollfd fds[3] = {{bus.socket(), POLLIN, 0}, {signals.fd(), POLLIN, 0}, {input_fd, POLLIN, 0}};
        const nfds_t count = input_fd >= 0 ? 3 : 2;
        if (poll(fds, count, -1) < 0) {
            if (errno == EINTR) continue;
            print_error(std::string("poll: ") + strerror(errno));
            return kExitFailure;
        }
        if (fds[1].revents != 0 && signals.take() != 0) return kExitOk;
        if (fds[0].revents != 0 && (!bus.read_write_ready() || !dbus_connection_get_is_connected(bus.get()))) {
            m_lost = true;
        }
        if (count == 3 && fds[2].revents != 0 && !m_listener.on_input(*this)) request_stop(m_stop_status);
    }
}

int CSubscriberSession::finish() {
    int status = kExitOk;
    m_closing = true;
    if (m_lost) {
        if (!m_subscribed.empty()) print_error(m_name, "its subscriptions stay in the service's table");
        return kExitUnreachable;
    }
    while (!m_subscribed.empty()) {
        const std::string key = m_subscribed.back();
        const CAnswer answer = m_context.client().unsubscribe(m_name, key);
        if (!answer.ok()) {
            const int failed = report_failure(answer, Request::Unsubscribe, key, m_context.timeout_ms());
            if (status == kExitOk) status = failed;
            // Without an answer from the service, the remaining keys would fail the same way.
            if (answer.kind != CAnswer::Kind::Code) break;
        }
        m_subscribed.pop_back();
    }
    if (!m_subscribed.empty()) print_error(m_name, "some subscriptions stay in the service's table");
    // Changes the service sent before it took the subscriptions away are still owed an answer.
    dispatch_queued();
    m_listener.on_closing(*this);
    if (m_have_name) m_context.bus().release_name(m_name);
    m_have_name = false;
    m_context.bus().flush();
    return status;
}

bool CSubscriberSession::answer(const CQuestion& question, int32_t code) {
    if (dbus_message_get_no_reply(question.call())) return true;
    DBusMessage* reply = dbus_message_new_method_return(question.call());
    if (reply == nullptr) return false;
    const dbus_int32_t value = code;
    const bool sent =
        dbus_message_append_args(reply, DBUS_TYPE_INT32, &value, DBUS_TYPE_INVALID) && m_context.bus().send(reply);
    dbus_message_unref(reply);
    return sent;
}

void CSubscriberSession::request_stop(int status) {
    if (!m_stop_requested) m_stop_status = status;
    m_stop_requested = true;
}

void CSubscriberSession::dispatch_queued() {
    while (DBusMessage* message = m_context.bus().pop()) {
        if (is_disconnect(message)) m_lost = true;
        if (dbus_message_get_type(message) == DBUS_MESSAGE_TYPE_METHOD_CALL) handle_call(message);
        dbus_message_unref(message);
    }
}

void CSubscriberSession::handle_call(DBusMessage* call) {
    const char* path = dbus_message_get_path(call);
    const char* key = nullptr;
    const char* value = nullptr;
    if (path == nullptr || m_path != path || !dbus_message_is_method_call(call, m_name.c_str(), kNotifyMember) ||
        !dbus_message_get_args(call, nullptr, DBUS_TYPE_STRING, &key, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID)) {
        reply_unknown(m_context.bus(), call);
        return;
    }
    m_listener.on_question(*this, CQuestion(call, key, value, now_ms()));
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
