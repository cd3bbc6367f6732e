#include "quorel/testsupport/fake_bridge.h"

namespace Quorel {
namespace Iot {
namespace Testing {

namespace {

constexpr const char kBridge[] = "iot.bridge.mqtt";
constexpr const char kBridgePath[] = "/iot/bridge/mqtt";

}  // namespace

CFakeBridge::CFakeBridge(const std::string& address)
    : CFakeService(address, kBridge), m_subscribe_reply("{\"code\":0}") {
    on("subscribe", [this](DBusMessage* call) {
        std::lock_guard<std::mutex> lock(m_reply_mutex);
        return reply_string(call, m_subscribe_reply);
    });
    on("publish", [](DBusMessage* call) { return reply_string(call, "{\"code\":0}"); });
}

void CFakeBridge::set_subscribe_reply(const std::string& text) {
    std::lock_guard<std::mutex> lock(m_reply_mutex);
    m_subscribe_reply = text;
}

std::vector<std::string> CFakeBridge::published() const {
    std::vector<std::string> payloads;
    for (const auto& call : received("publish")) payloads.push_back(call.args.size() > 1 ? call.args[1] : "");
    return payloads;
}

bool CFakeBridge::emit_event(const std::string& topic, const std::string& payload, const std::string& destination) {
    DBusMessage* signal = dbus_message_new_signal(kBridgePath, kBridge, "subscribe_event");
    if (signal == nullptr) return false;
    dbus_message_set_destination(signal, destination.c_str());
    const char* topic_text = topic.c_str();
    const char* payload_text = payload.c_str();
    dbus_message_append_args(signal, DBUS_TYPE_STRING, &topic_text, DBUS_TYPE_STRING, &payload_text, DBUS_TYPE_INVALID);
    const bool sent = send(signal);
    dbus_message_unref(signal);
    return sent;
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
