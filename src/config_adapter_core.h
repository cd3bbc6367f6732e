// CAdapterCore: everything of the cloud shadow adapter that its detached threads touch.
//
// Owned through std::shared_ptr by CConfigAdatper and by each of its two detached threads, so
// deleting the adapter never frees what a thread still uses. Bus calls go through m_gate, which
// the adapter closes in its destructor (see config_adapter_gate.h).
//
// Threads: the adapter's bus reader thread (device_shadow_proc, notify_shadow and the
// reporting operations), the subscription thread (subscribe_thread_proc), the shadow thread
// (wait_shadow, shadow_thread_proc and what it calls) and the entry thread (start: the client
// calls, reset_shadow, set_topics). The client calls block, so never on the bus reader thread.
#ifndef QUOREL_CONFIGMANAGER_CONFIG_ADAPTER_CORE_H
#define QUOREL_CONFIGMANAGER_CONFIG_ADAPTER_CORE_H

#include <json/json.h>
#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <string>

#include "config_adapter_gate.h"
#include "quorel/platform/mutex.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

// Names, timeouts and codes shared by the adapter's units.
namespace Adapter {
constexpr const char kConfigService[] = "iot.dmp.configmanager";
constexpr const char kName[] = "iot.dmp.config.adapter";
constexpr const char kBridge[] = "iot.bridge.mqtt";
constexpr uint32_t kConfigTimeoutMs = 500;
constexpr int32_t kCodeUnread = 100000;
}  // namespace Adapter

class CAdapterCore {
public:
    explicit CAdapterCore(DBus::CDBusServer* server);
    ~CAdapterCore();
    CAdapterCore(const CAdapterCore&) = delete;
    CAdapterCore& operator=(const CAdapterCore&) = delete;

    CAdapterGate& gate() { return m_gate; }

    // Replaces the bus call of set_config (tests and fuzzing watch what the shadow thread would
    // write without a configuration service). Set before the threads start; empty restores it.
    using ConfigSetter = std::function<int32_t(const std::string& key, const std::string& value)>;
    void set_config_setter(ConfigSetter setter) { m_config_setter = std::move(setter); }

    // ---- lifecycle (config_adapter_client.cpp) ----
    // Local "reported" back to the string "null", local version 1.
    void reset_shadow();
    void set_topics(const std::string& get_topic, const std::string& update_topic);
    std::string get_topic();
    std::string update_topic();
    // One turn of a thread's loop; false once the adapter is gone and the thread should end.
    bool run_subscribe_pass();
    bool run_shadow_pass();

    // ---- client calls to the configuration service (config_adapter_client.cpp) ----
    // get_config and set_config always wait 500 ms; their timeout argument is not used.
    int32_t get_config(const std::string& key, std::string& value, uint32_t timeout);
    int32_t set_config(const std::string& key, const std::string& value, uint32_t timeout);
    int32_t subscribe_config(const char* key, int32_t type, int32_t timeout);

    // ---- the MQTT bridge (config_adapter_client.cpp) ----
    bool subscribe_cloud_topic(const std::string& topic);
    void subscribe_thread_proc();
    // "publish" of payload on the update topic; the handle's result code.
    int32_t publish(const std::string& payload);

    // ---- shadow synchronisation (config_adapter_shadow.cpp) ----
    void device_shadow_proc(const std::string& topic, const std::string& payload);
    void notify_shadow();
    // 0 a document is pending, -2 timed out, otherwise the condition wait's error number.
    int32_t wait_shadow(uint32_t timeout);
    void shadow_thread_proc();
    void shadow_method_control();
    void set_shadow_params(const Json::Value& reported, const Json::Value& desired);
    void set_param_config(const std::string& key, const Json::Value& reported, const Json::Value& desired);

    // ---- settings reporting (config_adapter_report.cpp); bus reader thread ----
    void handle_serial_num_update(const std::string& value);
    void handle_orlo_info_update(const std::string& value);
    void get_shadow_all();

private:
    void process_shadow();
    // False (logged) for a cloud string the configuration service cannot be sent.
    bool applicable(const std::string& key, const std::string& text);
    void set_reported_number(const std::string& key, uint32_t number, const std::string& text);
    void set_reported_string(const std::string& key, const std::string& text);
    void set_reported_value(Json::Value& state, const std::string& member, const std::string& key,
                            const Json::Value& value) REQUIRES(m_shadow_mutex);
    void next_version(Json::Value& document) REQUIRES(m_shadow_mutex);
    Json::Value& local_reported() REQUIRES(m_shadow_mutex);

    // Set at construction.
    CAdapterGate m_gate;
    ConfigSetter m_config_setter;

    // Written by start, read by the bus reader and the subscription thread.
    Platform::CMutex m_topic_mutex;
    std::string m_get_topic GUARDED_BY(m_topic_mutex);
    std::string m_update_topic GUARDED_BY(m_topic_mutex);

    // Subscription thread only (atomic: a restarted adapter would start a second one).
    std::atomic<bool> m_need_subscribe{true};

    // The local shadow and the last document from the cloud; held for short spans only and
    // never across a bus call.
    Platform::CMutex m_shadow_mutex;
    Json::Value m_shadow_json GUARDED_BY(m_shadow_mutex);
    Json::Value m_shadow_tmp GUARDED_BY(m_shadow_mutex);

    // Hand-off of received documents: the bus reader raises the count and signals m_notify_cond
    // after unlocking; the shadow thread waits and lowers it. Never held with m_shadow_mutex.
    pthread_mutex_t m_notify_mutex;
    pthread_cond_t m_notify_cond;
    uint32_t m_notify_count;  // guarded by m_notify_mutex
};

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
