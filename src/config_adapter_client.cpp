// The adapter core's set-up, its calls to the configuration service and to the MQTT bridge, and
// the topic subscription thread.
#include <exception>

#include "config_adapter_core.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/src/config_adapter.cpp";

using Adapter::kBridge;
using Adapter::kCodeUnread;
using Adapter::kConfigService;
using Adapter::kConfigTimeoutMs;

constexpr const char kConfigPath[] = "/iot/dmp/configmanager";
constexpr const char kBridgePath[] = "/iot/bridge/mqtt";
constexpr uint32_t kBridgeTimeoutMs = 1000;
constexpr int32_t kCodeBadArgument = 100001;
constexpr int32_t kCodeCallFailed = 100008;
constexpr int32_t kCodeNoValue = 100100;
constexpr int32_t kCodeBadType = 100104;

DBus::CDBusMethodCall config_call(const char* method) {
    return DBus::CDBusMethodCall(kConfigService, kConfigPath, kConfigService, method);
}

// The leading int32 of a reply, or kCodeUnread when it cannot be read.
int32_t reply_code(DBus::CDBusMethodReturn& reply) {
    int32_t code = kCodeUnread;
    reply.get_int32(code);
    return code;
}

}  // namespace

CAdapterCore::CAdapterCore(DBus::CDBusServer* server) : m_gate(server), m_notify_count(0) {
    pthread_mutex_init(&m_notify_mutex, nullptr);
    pthread_cond_init(&m_notify_cond, nullptr);
}

CAdapterCore::~CAdapterCore() {
    pthread_cond_destroy(&m_notify_cond);
    pthread_mutex_destroy(&m_notify_mutex);
}

void CAdapterCore::reset_shadow() {
    Platform::CMutexGuard guard(m_shadow_mutex);
    // The string "null" (not a JSON null) marks that nothing has been applied since start.
    m_shadow_json["payload"]["state"]["reported"] = "null";
    m_shadow_json["version"] = 1;
}

void CAdapterCore::set_topics(const std::string& get_topic, const std::string& update_topic) {
    Platform::CMutexGuard guard(m_topic_mutex);
    m_get_topic = get_topic;
    m_update_topic = update_topic;
}

std::string CAdapterCore::get_topic() {
    Platform::CMutexGuard guard(m_topic_mutex);
    return m_get_topic;
}

std::string CAdapterCore::update_topic() {
    Platform::CMutexGuard guard(m_topic_mutex);
    return m_update_topic;
}

bool CAdapterCore::run_subscribe_pass() {
    CAdapterPass pass(m_gate);
    if (!pass) return false;
    try {
        subscribe_thread_proc();
    } catch (const std::exception& e) {
        // A "code" that is not an unsigned number, for instance.
        QLOG(3, "subscribe_thread_proc, exception:%s.", e.what());
    }
    return true;
}

int32_t CAdapterCore::get_config(const std::string& key, std::string& value, uint32_t) {
    DBus::CDBusMethodCall request = config_call("get_config");
    request.set_string(key);
    DBus::CDBusMethodReturn reply;
    if (m_gate.block_call(request, reply, kConfigTimeoutMs) != 0) {
        // The text names set on purpose: both calls share it.
        QLOG(3, "set config, block call error, name:%s.", kConfigService);
        return kCodeCallFailed;
    }
    const int32_t code = reply_code(reply);
    if (code != 0) return code;
    std::string text;
    if (!reply.get_string(text)) return kCodeNoValue;
    value = text;
    return 0;
}

int32_t CAdapterCore::set_config(const std::string& key, const std::string& value, uint32_t) {
    if (m_config_setter) return m_config_setter(key, value);
    DBus::CDBusMethodCall request = config_call("set_config");
    request.set_string(key);
    request.set_string(value);
    DBus::CDBusMethodReturn reply;
    if (m_gate.block_call(request, reply, kConfigTimeoutMs) != 0) {
        QLOG(3, "set config, block call error, name:%s.", kConfigService);
        return kCodeCallFailed;
    }
    return reply_code(reply);
}

int32_t CAdapterCore::subscribe_config(const char* key, int32_t type, int32_t timeout) {
    if (key == nullptr || timeout < 0) return kCodeBadArgument;
    if (type != 0 && type != 1) return kCodeBadType;
    DBus::CDBusMethodCall request = config_call("subscribe_config");
    request.set_string(Adapter::kName);
    request.set_string(key);
    request.set_int32(type);
    DBus::CDBusMethodReturn reply;
    if (m_gate.block_call(request, reply, static_cast<uint32_t>(timeout)) != 0) {
        QLOG(3, "subscribe_config, block call error, name:%s.", kConfigService);
        return kCodeCallFailed;
    }
    return reply_code(reply);
}

bool CAdapterCore::subscribe_cloud_topic(const std::string& topic) {
    DBus::CDBusMethodCall request(kBridge, kBridgePath, kBridge, "subscribe");
    request.set_string(topic);
    request.set_string(Adapter::kName);
    request.set_int32(0);
    DBus::CDBusMethodReturn reply;
    if (m_gate.block_call(request, reply, kBridgeTimeoutMs) != 0) {
        // Borrowed wording, kept as the gateway's log tools know it.
        QLOG(3, "notify_to_owner, unblock call error, name:%s.", kBridge);
        return false;
    }
    if (!reply.is_method_return()) {
        QLOG(3, "response type error.");
        return false;
    }
    std::string text;
    if (!reply.get_string(text)) {
        QLOG(3, "response get result error.");
        return false;
    }
    Json::Value result;
    Json::Reader reader;
    bool parsed = false;
    try {
        parsed = reader.parse(text, result, true);
    } catch (const std::exception&) {
        // Nested past the reader's depth limit.
    }
    if (!parsed) {
        QLOG(3, "parse result error.");
        return false;
    }
    // Without a "code" the bridge has not said yes.
    uint32_t code = kCodeUnread;
    if (result.isObject() && !result.empty() && result.isMember("code")) {
        code = static_cast<uint32_t>(result["code"].asUInt64());
    }
    if (code != 0) {
        QLOG(3, "subscribe result:%s", text.c_str());
        return false;
    }
    QLOG(1, "subscribe success:%s", text.c_str());
    return true;
}

void CAdapterCore::subscribe_thread_proc() {
    // Once accepted, never again, even if the bridge restarts.
    if (!m_need_subscribe.load(std::memory_order_relaxed)) return;
    const std::string topic = get_topic();
    QLOG(1, "subscribe cloud topic %s", topic.c_str());
    if (!subscribe_cloud_topic(topic)) {
        QLOG(3, "subscribe cloud topic error!");
        return;
    }
    m_need_subscribe.store(false, std::memory_order_relaxed);
}

int32_t CAdapterCore::publish(const std::string& payload) {
    DBus::CDBusMethodCall request(kBridge, kBridgePath, kBridge, "publish");
    request.set_string(update_topic());
    request.set_string(payload);
    request.set_int32(0);
    return m_gate.unblock_call(request);
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
