// Subscriptions: the map of owners and observers per key, its persistence as the store's
// "subscribe" metadata record, the two bus methods that edit it and the outgoing "notify_config"
// calls. Every map operation holds m_subscribe_mutex for its whole run, sends included (they are
// non-blocking).
#include <dbus/dbus.h>

#include <cstdint>
#include <string>
#include <vector>

#include "config_business_codes.h"
#include "json_text.h"
#include "quorel/configmanager/config_business.h"
#include "quorel/configmanager/limits.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {
constexpr const char kLogFile[] = "core-services/config-manager/src/config_business";
constexpr const char kMetadataName[] = "subscribe";
constexpr const char kAllKeys[] = "*";
constexpr const char kLoggerName[] = "iot.gateway.logger";
using namespace BusinessCode;

// The subscribers of key, or null when the map has none (a map loaded from the store may hold
// anything, so every level is checked before use).
const Json::Value* find_entries(const Json::Value& map, const std::string& key) {
    if (!map.isObject()) return nullptr;
    const Json::Value* entries = map.find(key.data(), key.data() + key.size());
    return entries != nullptr && entries->isObject() ? entries : nullptr;
}

bool has_type(const Json::Value& entry, int32_t type) { return entry.isInt() && entry.asInt() == type; }

// Subscription entries in a map as loaded or built: the map's size bound counts these.
size_t count_entries(const Json::Value& map) {
    size_t count = 0;
    if (!map.isObject()) return 0;
    for (const Json::Value& entries : map) count += entries.isObject() ? entries.size() : 0;
    return count;
}

}  // namespace

std::string CConfigBusiness::make_object_path(const std::string& bus_name) {
    std::string path = "/" + bus_name;
    for (char& c : path)
        if (c == '.') c = '/';
    return path;
}

bool CConfigBusiness::is_callable_name(const std::string& bus_name) {
    // libdbus treats an invalid path or interface in a message as a programming error, so names
    // are checked before any message is built for them.
    return validate_bus_name(bus_name) && dbus_validate_path(make_object_path(bus_name).c_str(), nullptr) &&
           dbus_validate_interface(bus_name.c_str(), nullptr);
}

void CConfigBusiness::handle_subscribe(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply) {
    std::string dbus_name;
    std::string key;
    int32_t type = 0;
    if (!request.get_string(dbus_name) || !request.get_string(key) || !request.get_int32(type)) {
        reply.set_int32(kBadArguments);
        return;
    }
    QLOG(1, "handle_subscribe, dbus_name:%s, key:%s, type:%d.", dbus_name.c_str(), key.c_str(), type);
    if (type != kOwner && type != kObserver) {
        reply.set_int32(kBadType);
        return;
    }
    // A valid bus name that gives no valid object path or interface (a unique name, a hyphen)
    // could never be called back, and an owner of that kind would block every set of its key.
    if (!is_callable_name(dbus_name)) {
        reply.set_int32(kBadName);
        return;
    }
    if (dbus_name == kLoggerName) log_init("config-manager", 1, 0, 2);
    reply.set_int32(add_subscribe_map(key, dbus_name, type) ? kOk : kRefused);
}

void CConfigBusiness::handle_unsubscribe(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply) {
    std::string dbus_name;
    std::string key;
    if (!request.get_string(dbus_name) || !request.get_string(key)) {
        reply.set_int32(kBadArguments);
        return;
    }
    QLOG(1, "handle_unsubscribe, dbus_name:%s, key:%s.", dbus_name.c_str(), key.c_str());
    if (key != kAllKeys && !is_subscribed(key, dbus_name)) {
        reply.set_int32(kNotSubscribed);
        return;
    }
    del_subscribe_map(key, dbus_name);
    reply.set_int32(kOk);
}

void CConfigBusiness::load_subscribe_map() {
    Platform::CMutexGuard guard(m_subscribe_mutex);
    m_subscribe = Json::Value();
    m_file_manager.get_metadata(kMetadataName, m_subscribe);
    QLOG(1, "start, subscribe rules:%s.", styled_head(m_subscribe, LOG_MESSAGE_MAX).c_str());
    m_subscribe_entries = count_entries(m_subscribe);
}

bool CConfigBusiness::add_subscribe_map(const std::string& key, const std::string& dbus_name, int32_t type) {
    Platform::CMutexGuard guard(m_subscribe_mutex);
    const Json::Value* entries = find_entries(m_subscribe, key);
    if (type == kOwner && entries != nullptr) {
        for (auto it = entries->begin(); it != entries->end(); ++it) {
            if (has_type(*it, kOwner) && it.name() != dbus_name) {
                QLOG(3, "add_subscribe_map, already subscribe, dbus_name:%s.", it.name().c_str());
                return false;
            }
        }
    }
    const bool is_new = entries == nullptr || !entries->isMember(dbus_name);
    if (key.size() > Limits::kMaxKeyBytes || (is_new && m_subscribe_entries >= Limits::kMaxSubscriptions)) {
        QLOG(3, "add_subscribe_map, table full or key too long, entries:%zu, key bytes:%zu.", m_subscribe_entries,
             key.size());
        return false;
    }
    // A loaded map may hold anything: a level of another type gives way to an object.
    if (!m_subscribe.isObject()) m_subscribe = Json::Value(Json::objectValue);
    Json::Value& slot = m_subscribe[key];
    if (!slot.isObject()) slot = Json::Value(Json::objectValue);
    slot[dbus_name] = type;
    if (is_new) ++m_subscribe_entries;
    // Only the key's own entries are written into the stored record, so that a change costs the
    // same whatever the size of the table.
    m_file_manager.set_metadata_entry(kMetadataName, key, &slot);
    return true;
}

void CConfigBusiness::remove_subscriber(const std::string& key, const std::string& dbus_name) {
    const Json::Value* entries = find_entries(m_subscribe, key);
    if (entries == nullptr || !entries->isMember(dbus_name)) return;
    --m_subscribe_entries;
    if (entries->size() == 1) {
        m_subscribe.removeMember(key);
        m_file_manager.set_metadata_entry(kMetadataName, key, nullptr);
    } else {
        Json::Value& slot = m_subscribe[key];
        slot.removeMember(dbus_name);
        m_file_manager.set_metadata_entry(kMetadataName, key, &slot);
    }
}

bool CConfigBusiness::del_subscribe_map(const std::string& key, const std::string& dbus_name) {
    Platform::CMutexGuard guard(m_subscribe_mutex);
    if (key != kAllKeys) {
        remove_subscriber(key, dbus_name);
    } else if (m_subscribe.isObject()) {
        std::vector<std::string> keys;
        for (auto it = m_subscribe.begin(); it != m_subscribe.end(); ++it) {
            if (it->isObject() && it->isMember(dbus_name)) keys.push_back(it.name());
        }
        for (const std::string& each : keys) remove_subscriber(each, dbus_name);
    }
    // Written (and so saved) even when nothing changed, as every edit of the table is; for the
    // wildcard this rewrites the entries of the ordinary key "*".
    m_file_manager.set_metadata_entry(kMetadataName, key, find_entries(m_subscribe, key));
    return true;
}

bool CConfigBusiness::is_subscribed(const std::string& key, const std::string& dbus_name) {
    Platform::CMutexGuard guard(m_subscribe_mutex);
    const Json::Value* entries = find_entries(m_subscribe, key);
    return entries != nullptr && entries->isMember(dbus_name);
}

bool CConfigBusiness::has_owner(const std::string& key) {
    std::string owner;
    return owner_of(key, owner);
}

DBus::CDBusMethodCall CConfigBusiness::notify_call(const std::string& dbus_name, const std::string& key,
                                                   const std::string& value) {
    DBus::CDBusMethodCall call(dbus_name, make_object_path(dbus_name), dbus_name, "notify_config");
    if (!call.set_string(key) || !call.set_string(value)) return DBus::CDBusMethodCall(nullptr);
    return call;
}

bool CConfigBusiness::send_owner_question(const std::string& owner, const std::string& key, const std::string& value,
                                          void* user_data) {
    DBus::CDBusMethodCall call = notify_call(owner, key, value);
    if (call.empty()) return false;
    return unblock_call(call, user_data, DBus::DBusCallback(this, &CConfigBusiness::callback)) == 0;
}

bool CConfigBusiness::owner_of(const std::string& key, std::string& owner) {
    Platform::CMutexGuard guard(m_subscribe_mutex);
    const Json::Value* entries = find_entries(m_subscribe, key);
    if (entries == nullptr) return false;
    for (auto it = entries->begin(); it != entries->end(); ++it) {
        if (has_type(*it, kOwner)) {
            owner = it.name();
            return true;
        }
    }
    return false;
}

bool CConfigBusiness::notify_to_owner(const std::string& key, const std::string& value, uint64_t& serial) {
    Platform::CMutexGuard guard(m_subscribe_mutex);
    const Json::Value* entries = find_entries(m_subscribe, key);
    if (entries == nullptr) return false;
    for (auto it = entries->begin(); it != entries->end(); ++it) {
        if (!has_type(*it, kOwner)) continue;
        serial = ++m_notify_serial;
        const std::string owner = it.name();
        void* user_data = reinterpret_cast<void*>(static_cast<uintptr_t>(serial));
        if (!is_callable_name(owner) || !send_owner_question(owner, key, value, user_data)) {
            QLOG(3, "notify_to_owner, unblock call error, name:%s.", owner.c_str());
            return false;
        }
        return true;
    }
    return false;
}

bool CConfigBusiness::notify_to_observer(const std::string& key, const std::string& value) {
    Platform::CMutexGuard guard(m_subscribe_mutex);
    const Json::Value* entries = find_entries(m_subscribe, key);
    if (entries == nullptr) return true;
    for (auto it = entries->begin(); it != entries->end(); ++it) {
        if (!has_type(*it, kObserver)) continue;
        const std::string observer = it.name();
        // Observers' answers were never looked at: asking for none costs nothing when an observer
        // stays silent, where a pending reply would hold one of the bus daemon's slots for ever.
        // A map loaded from the store (or edited by debug_subscribe) may hold an uncallable name.
        DBus::CDBusMethodCall call =
            is_callable_name(observer) ? notify_call(observer, key, value) : DBus::CDBusMethodCall(nullptr);
        if (call.empty() || send_no_reply(call) != 0) {
            QLOG(3, "notify_to_observer, unblock call error, dbus name:%s.", observer.c_str());
        }
    }
    return true;
}

void CConfigBusiness::debug_config(const std::string& name) {
    std::string text;
    if (m_file_manager.get_config(name, text)) {
        QLOG(1, "debug_config, %s:%s.", name.c_str(), text.c_str());
    } else {
        QLOG(3, "debug_config, get config error, name:%s.", name.c_str());
    }
}

void CConfigBusiness::debug_subscribe(const std::string& key) {
    Platform::CMutexGuard guard(m_subscribe_mutex);
    const Json::Value* entries = find_entries(m_subscribe, key);
    if (entries != nullptr) {
        QLOG(1, "debug_subscribe, %s:%s.", key.c_str(), entries->toStyledString().c_str());
    } else {
        QLOG(1, "debug_subscribe, no subscribe info.");
    }
}

void CConfigBusiness::debug_subscribe(const std::string& key, const std::string& opr, const std::string& dbus_name,
                                      int32_t type) {
    if (opr == "del") {
        del_subscribe_map(key, dbus_name);
    } else if (opr == "add") {
        add_subscribe_map(key, dbus_name, type);
    } else {
        QLOG(3, "debug_subscribe, opr error.");
    }
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
