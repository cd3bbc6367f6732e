// Device shadow synchronisation: documents from the cloud are handed from the bus reader thread to
// the shadow thread, which applies seven configuration keys and keeps a local copy of them.
#include <dbus/dbus.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <exception>

#include "config_adapter_core.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/src/config_adapter.cpp";
constexpr uint32_t kShadowWaitMs = 3000;

// The shadow thread's lines carry the names of the two operations the gateway's log tools know,
// whichever helper of ours writes them.
#define QLOG_AS(function, level, ...) log_print((level), "color", "tag", kLogFile, (function), __LINE__, __VA_ARGS__)
constexpr const char kThreadProc[] = "shadow_thread_proc";
constexpr const char kSetParam[] = "set_param_config";

// Applied in this order; the shadow member and the configuration key are the same name.
constexpr const char* kSyncedKeys[] = {
    "gw_vexa_accessKey", "gw_vexa_secretKey", "gw_vexa_switch", "gw_orlo_logStore",
    "gw_orlo_project",   "gw_orlo_level",     "gw_orlo_switch",
};

// Numbers travel as the "%d" text of their unsigned value: above 2147483647 they turn negative,
// which the services reading these keys expect.
std::string number_text(uint32_t number) {
    char text[16] = {0};
    snprintf(text, sizeof(text), "%d", static_cast<int>(number));
    return text;
}

}  // namespace

void CAdapterCore::device_shadow_proc(const std::string&, const std::string& payload) {
    bool parsed = false;
    {
        Platform::CMutexGuard guard(m_shadow_mutex);
        Json::Reader reader;
        try {
            parsed = reader.parse(payload, m_shadow_tmp, true);
        } catch (const std::exception&) {
            // Nested past the reader's depth limit: a document like any other that does not parse.
            m_shadow_tmp = Json::Value();
        }
    }
    if (!parsed) {
        QLOG(3, "parse result error.");
        return;
    }
    notify_shadow();
}

void CAdapterCore::notify_shadow() {
    pthread_mutex_lock(&m_notify_mutex);
    ++m_notify_count;
    pthread_mutex_unlock(&m_notify_mutex);
    pthread_cond_signal(&m_notify_cond);
}

int32_t CAdapterCore::wait_shadow(uint32_t timeout) {
    pthread_mutex_lock(&m_notify_mutex);
    if (m_notify_count == 0) {
        struct timeval now;
        gettimeofday(&now, nullptr);
        // The product stays in 32 bits: timeouts must stay below 4295 ms.
        const uint32_t add_ns = timeout * 1000000u;
        const uint64_t ns = static_cast<uint64_t>(now.tv_usec) * 1000u + add_ns;
        struct timespec deadline;
        deadline.tv_sec = now.tv_sec + static_cast<time_t>(ns / 1000000000u);
        deadline.tv_nsec = static_cast<long>(ns % 1000000000u);
        // One wait, not a loop: a wake-up is taken as a document.
        const int ret = pthread_cond_timedwait(&m_notify_cond, &m_notify_mutex, &deadline);
        if (ret == ETIMEDOUT) {
            pthread_mutex_unlock(&m_notify_mutex);
            return -2;
        }
        if (ret != 0) {
            pthread_mutex_unlock(&m_notify_mutex);
            return ret;
        }
    }
    // A spurious wake-up finds nothing counted; the count must not wrap round then.
    if (m_notify_count > 0) --m_notify_count;
    pthread_mutex_unlock(&m_notify_mutex);
    return 0;
}

bool CAdapterCore::run_shadow_pass() {
    if (!m_gate.is_open()) return false;
    shadow_thread_proc();
    return true;
}

void CAdapterCore::shadow_thread_proc() {
    {
        CAdapterPass pass(m_gate);
        if (!pass) return;
        QLOG(0, "wait proc shadow info ...");
    }
    // The wait happens outside the gate, so the adapter's destructor never waits for it.
    if (wait_shadow(kShadowWaitMs) != 0) return;
    CAdapterPass pass(m_gate);
    if (!pass) return;
    try {
        process_shadow();
    } catch (const std::exception& e) {
        // A document the JSON library refuses to look into (not an object, a negative number).
        QLOG_AS(kThreadProc, 3, "shadow_thread_proc, exception:%s.", e.what());
    }
}

void CAdapterCore::process_shadow() {
    pthread_mutex_lock(&m_notify_mutex);
    const uint32_t count = m_notify_count;
    pthread_mutex_unlock(&m_notify_mutex);
    QLOG_AS(kThreadProc, 0, "notify flag:%u\n", count);

    bool has_method;
    {
        Platform::CMutexGuard guard(m_shadow_mutex);
        has_method = m_shadow_tmp.isMember("method");
    }
    if (!has_method) {
        QLOG_AS(kThreadProc, 3, "shadow not has 'method' member!");
        return;
    }
    std::string method;
    {
        Platform::CMutexGuard guard(m_shadow_mutex);
        QLOG_AS(kThreadProc, 1, "new shadow:%s\n", m_shadow_tmp.toStyledString().c_str());
        QLOG_AS(kThreadProc, 1, "old shadow:%s\n", m_shadow_json.toStyledString().c_str());
        method = m_shadow_tmp["method"].asString();
    }
    // A pushed desired state and the answer to our "get" are applied alike.
    if (method == "control" || method == "reply") {
        QLOG_AS(kThreadProc, 0, "proc reply method of shadow");
        shadow_method_control();
    }
}

void CAdapterCore::shadow_method_control() {
    QLOG(0, "start shadow_method_control!");
    Json::Value reported;
    Json::Value desired;
    {
        Platform::CMutexGuard guard(m_shadow_mutex);
        const Json::Value& cloud = m_shadow_tmp;
        reported = cloud["payload"]["state"]["reported"];
        desired = cloud["payload"]["state"]["desired"];
        if (cloud.isMember("version") && !cloud["version"].isNull()) m_shadow_json["version"] = cloud["version"];
    }
    QLOG(0, "shadow info set to config-manager!");
    set_shadow_params(reported, desired);
    Platform::CMutexGuard guard(m_shadow_mutex);
    QLOG(1, "m_shadow_json:%s", m_shadow_json.toStyledString().c_str());
    QLOG(1, "m_shadow_tmp:%s", m_shadow_tmp.toStyledString().c_str());
}

void CAdapterCore::set_shadow_params(const Json::Value& reported, const Json::Value& desired) {
    for (const char* key : kSyncedKeys) {
        // Each key on its own: a value the JSON library cannot convert spoils only its key.
        try {
            set_param_config(key, reported, desired);
        } catch (const std::exception& e) {
            QLOG(3, "set_shadow_params, key:%s, exception:%s.", key, e.what());
        }
    }
}

void CAdapterCore::set_param_config(const std::string& key, const Json::Value& reported, const Json::Value& desired) {
    QLOG(1, "start set_param_config, key:%s!", key.c_str());
    // The desired value always wins and is applied every time, even when nothing changes.
    if (desired.isObject() && desired.isMember(key)) {
        QLOG(0, "desired have key %s!", key.c_str());
        const Json::Value& value = desired[key];
        if (!value.isString()) {
            const uint32_t number = value.asUInt();
            const std::string text = number_text(number);
            QLOG(0, "set config %s:%s ", key.c_str(), text.c_str());
            set_reported_number(key, number, text);
        } else {
            const std::string text = value.asString();
            if (!applicable(key, text)) return;
            QLOG(1, "set config %s:%s ", key.c_str(), text.c_str());
            set_reported_string(key, text);
        }
        return;
    }
    // Otherwise what the cloud says the gateway reported, unless it is in place already.
    if (!reported.isObject() || !reported.isMember(key)) return;
    const Json::Value& value = reported[key];
    if (value.isString()) {
        const std::string text = value.asString();
        if (!applicable(key, text)) return;
        {
            Platform::CMutexGuard guard(m_shadow_mutex);
            const Json::Value& local = local_reported();
            if (local.isObject() && local[key].isString() && local[key].asString() == text) {
                QLOG(1, "local have set config %s:%s ", key.c_str(), text.c_str());
                return;
            }
        }
        QLOG(1, "set config %s:%s ", key.c_str(), text.c_str());
        set_reported_string(key, text);
    } else if (value.isUInt()) {
        const uint32_t number = value.asUInt();
        {
            Platform::CMutexGuard guard(m_shadow_mutex);
            const Json::Value& local = local_reported();
            if (local.isObject() && local[key].isUInt() && local[key].asUInt() == number) {
                QLOG(1, "local have set config %s:%d ", key.c_str(), static_cast<int>(number));
                return;
            }
        }
        const std::string text = number_text(number);
        QLOG(1, "set config %s:%s ", key.c_str(), text.c_str());
        set_reported_number(key, number, text);
    }
}

// The local copy is updated first and is not rolled back when the service refuses the value.
void CAdapterCore::set_reported_number(const std::string& key, uint32_t number, const std::string& text) {
    {
        Platform::CMutexGuard guard(m_shadow_mutex);
        set_reported_value(m_shadow_json["payload"]["state"], "reported", key, Json::Value(Json::UInt(number)));
    }
    if (set_config(key, text, Adapter::kConfigTimeoutMs) != 0)
        QLOG_AS(kSetParam, 3, "set config %s:%s error!", key.c_str(), text.c_str());
}

void CAdapterCore::set_reported_string(const std::string& key, const std::string& text) {
    {
        Platform::CMutexGuard guard(m_shadow_mutex);
        set_reported_value(m_shadow_json["payload"]["state"], "reported", key, Json::Value(text));
    }
    if (set_config(key, text, Adapter::kConfigTimeoutMs) != 0)
        QLOG_AS(kSetParam, 3, "set config %s:%s error!", key.c_str(), text.c_str());
}

bool CAdapterCore::applicable(const std::string& key, const std::string& text) {
    // The configuration service could not be sent such text (nor could anyone read it back).
    if (dbus_validate_utf8(text.c_str(), nullptr) && text.find('\0') == std::string::npos) return true;
    QLOG_AS(kSetParam, 3, "set_param_config, key:%s, cloud value is not UTF-8 text, not applied.", key.c_str());
    return false;
}

void CAdapterCore::set_reported_value(Json::Value& state, const std::string& member, const std::string& key,
                                      const Json::Value& value) {
    // The first value replaces the start-up marker "null" by a fresh object.
    if (!state[member].isObject()) state.removeMember(member);
    state[member][key] = value;
}

Json::Value& CAdapterCore::local_reported() { return m_shadow_json["payload"]["state"]["reported"]; }

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
