// Settings reporting: the start-up request for the whole shadow, and the update documents
// published when an observed key changes. Everything here but get_shadow_all (called once by
// start) runs on the adapter's bus reader thread; nothing waits for the bridge.
#include <exception>

#include "config_adapter_core.h"
#include "quorel/configmanager/config_adapter.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/src/config_adapter.cpp";
using Adapter::kBridge;

}  // namespace

void CConfigAdatper::handle_notify_config(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply,
                                          bool& need_reply) {
    QLOG(1, "start handle_notify_config");
    std::string key;
    std::string value;
    if (!request.get_string(key) || !request.get_string(value)) {
        QLOG(3, "start handle_notify_config");
        reply.set_int32(Adapter::kCodeUnread);
    } else {
        QLOG(1, "notify config: key:%s, value:%s", key.c_str(), value.c_str());
        // The notifier is answered with its code whatever a report runs into.
        try {
            if (key == "gw_vexa_serialNumber") {
                m_core->handle_serial_num_update(value);
            } else if (key == "gw_orlo_reply") {
                m_core->handle_orlo_info_update(value);
            }
        } catch (const std::exception& e) {
            QLOG(3, "handle_notify_config, exception:%s.", e.what());
        }
        reply.set_int32(0);
    }
    // Answered at once: the publication does not wait for the bridge.
    need_reply = true;
}

namespace {

// The local version as an unsigned 32-bit number; a cloud document may have set it to anything,
// and what cannot be read as such a number counts as 0.
uint32_t version_number(const Json::Value& version) {
    switch (version.type()) {
        case Json::intValue:
        case Json::uintValue:
            return version.isUInt() ? version.asUInt() : 0;
        case Json::realValue: {
            const double real = version.asDouble();
            return real >= 0.0 && real < 4294967296.0 ? static_cast<uint32_t>(real) : 0;
        }
        case Json::booleanValue:
            return version.asBool() ? 1 : 0;
        default:
            return 0;
    }
}

}  // namespace

void CAdapterCore::next_version(Json::Value& document) {
    const uint32_t version = version_number(m_shadow_json["version"]) + 1;
    document["version"] = Json::UInt(version);
    m_shadow_json["version"] = Json::UInt(version);
}

void CAdapterCore::handle_serial_num_update(const std::string& value) {
    QLOG(1, "proc handle_serial_num_update!");
    Json::Value document;
    document["method"] = "update";
    document["state"]["reported"]["gw_vexa_serialNumber"] = value;
    {
        Platform::CMutexGuard guard(m_shadow_mutex);
        // A missing member is looked up into existence: both copies then hold null for it.
        Json::Value& local = local_reported();
        if (local.isObject()) document["state"]["reported"]["gw_vexa_switch"] = local["gw_vexa_switch"];
        next_version(document);
    }
    const std::string text = document.toStyledString();
    QLOG(1, "vexa shadow update:%s", text.c_str());
    if (publish(text) != 0) QLOG(3, "publish, unblock call from handle_serial_num_update error, name:%s.", kBridge);
}

// The new "gw_orlo_reply" text is only a trigger: the report carries the applied log settings.
void CAdapterCore::handle_orlo_info_update(const std::string&) {
    QLOG(1, "proc handle_orlo_info_update!");
    Json::Value document;
    document["method"] = "update";
    {
        Platform::CMutexGuard guard(m_shadow_mutex);
        Json::Value& local = local_reported();
        if (local.isObject()) {
            document["state"]["reported"]["gw_orlo_level"] = local["gw_orlo_level"];
            document["state"]["reported"]["gw_orlo_switch"] = local["gw_orlo_switch"];
        }
        next_version(document);
    }
    const std::string text = document.toStyledString();
    QLOG(1, "orlo shadow update:%s", text.c_str());
    if (publish(text) != 0) QLOG(3, "publish, unblock call from handle_orlo_info_update, name:%s.", kBridge);
}

void CAdapterCore::get_shadow_all() {
    Json::Value document;
    document["method"] = "get";
    const std::string text = document.toStyledString();
    QLOG(1, "shadow get:%s", text.c_str());
    if (publish(text) != 0) QLOG(3, "publish, unblock call from get_shadow_all error, name:%s.", kBridge);
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
