// CConfigBusiness: the configuration service "iot.dmp.configmanager" on the bus.
//
// Answers every method on its bus reader thread; for a key with an owner, a set request is held
// (PendingReply) until the owner answers its "notify_config" call. start/stop run on the main
// thread. The process-wide exit semaphore g_exit_sem lives here because message_error posts it.
//
// Locks: m_subscribe_mutex is held for each whole subscription operation (including the sending of
// the non-blocking notify_config calls); m_pending_mutex only around the table of waiting set
// requests. m_subscribe_mutex is never taken while m_pending_mutex is held. The store locks itself.
#ifndef QUOREL_CONFIGMANAGER_CONFIG_BUSINESS_H
#define QUOREL_CONFIGMANAGER_CONFIG_BUSINESS_H

#include <json/json.h>

#include <cstdint>
#include <list>
#include <map>
#include <memory>
#include <string>

#include "quorel/configmanager/config_file_manager.h"
#include "quorel/dbus/dbus_server.h"
#include "quorel/platform/mutex.h"
#include "quorel/platform/semaphore.h"
#include "quorel/platform/thread_annotations.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

// Posted by the SIGTERM handler and by CConfigBusiness::message_error; the entry waits on it.
extern Platform::CSemaphore g_exit_sem;

class CConfigBusiness : public DBus::CDBusServer {
public:
    CConfigBusiness(const std::string& address, const std::string& name, const std::list<std::string>& rules);
    ~CConfigBusiness() override;

    // Starts the store, loads the subscription table, connects and arranges watchdog feeding.
    // false when the store or the bus connection failed (the store is stopped again then).
    bool start(const std::string& path);
    // Answers every set request still waiting for its owner with the shutdown text, then leaves
    // the bus. Main thread only.
    void stop();

    void message_request(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, bool& need_reply) override;
    void message_signal(DBus::CDBusSignal& signal) override;
    void message_error(int32_t code) override;

    // Completion of an owner's "notify_config"; user_data carries the notify serial.
    void callback(uint32_t status, DBus::CDBusMessage* message, void* user_data);

    // Diagnostics: nothing in the service calls them.
    void debug_config(const std::string& name);
    void debug_subscribe(const std::string& key);
    void debug_subscribe(const std::string& key, const std::string& opr, const std::string& dbus_name, int32_t type);

    // Object path at which a subscriber serves "notify_config": "/" + name with "." → "/".
    static std::string make_object_path(const std::string& bus_name);
    // A valid bus name that also gives a valid object path and interface, so it can be called.
    static bool is_callable_name(const std::string& bus_name);

    // Subscription types of "subscribe_config".
    static constexpr int32_t kOwner = 0;
    static constexpr int32_t kObserver = 1;

private:
    // A set request waiting for the key owner's answer. Created by the set handlers, handed over
    // to m_pending_replies, released by callback (or by stop after the shutdown answer).
    struct PendingReply {
        DBus::CDBusMethodReturn reply;  // holds its own reference, so it outlives the dispatch
        std::string key;
        std::string value;  // the text to store once the owner agrees
        std::string owner;  // who was asked, for the bound on unanswered questions
    };

    // Handlers: bus reader thread only.
    void handle_introspect(DBus::CDBusMethodReturn& reply);
    void handle_get(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply);
    void handle_get_with_ts(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply);
    void handle_set(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, bool& need_reply);
    void handle_set_with_ts(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, bool& need_reply);
    void handle_get_config_batch(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply);
    void handle_get_config_batch_with_ts(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply);
    void handle_get_keylist(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply);
    // The shape the three pattern queries share: (i code, s result of the store query).
    using PatternQuery = bool (CConfigFileManagerFullamount::*)(const std::string&, std::string&);
    void handle_get_key(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, PatternQuery query,
                        const char* result_label);
    void handle_subscribe(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply);
    void handle_unsubscribe(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply);

    // The part of a set shared by both set methods. stored is what the store keeps, notified what
    // the observers and the owner are told now; the pending record keeps stored. Appends the code
    // (or defers the answer); false only when the key's owner could not be asked.
    bool apply_set(const std::string& key, const std::string& stored, const std::string& notified,
                   DBus::CDBusMethodReturn& reply, bool& need_reply);
    void defer_reply(uint64_t serial, const DBus::CDBusMethodReturn& reply, const std::string& key,
                     const std::string& value, const std::string& owner) EXCLUDES(m_pending_mutex);
    // False when owner already holds its share of unanswered questions, or all owners together do.
    bool may_ask(const std::string& owner) EXCLUDES(m_pending_mutex);
    std::unique_ptr<PendingReply> take_pending(uint64_t serial) EXCLUDES(m_pending_mutex);

    // Subscription map operations; each takes m_subscribe_mutex for its whole run.
    void load_subscribe_map() EXCLUDES(m_subscribe_mutex);
    bool add_subscribe_map(const std::string& key, const std::string& dbus_name, int32_t type)
        EXCLUDES(m_subscribe_mutex);
    bool del_subscribe_map(const std::string& key, const std::string& dbus_name) EXCLUDES(m_subscribe_mutex);
    bool is_subscribed(const std::string& key, const std::string& dbus_name) EXCLUDES(m_subscribe_mutex);
    bool has_owner(const std::string& key) EXCLUDES(m_subscribe_mutex);
    // The key's first owner in name order; false when it has none.
    bool owner_of(const std::string& key, std::string& owner) EXCLUDES(m_subscribe_mutex);
    bool notify_to_owner(const std::string& key, const std::string& value, uint64_t& serial)
        EXCLUDES(m_subscribe_mutex);
    bool notify_to_observer(const std::string& key, const std::string& value) EXCLUDES(m_subscribe_mutex);

    void remove_subscriber(const std::string& key, const std::string& dbus_name) REQUIRES(m_subscribe_mutex);
    // The "notify_config" call to a subscriber; an empty holder when the texts cannot be sent.
    static DBus::CDBusMethodCall notify_call(const std::string& dbus_name, const std::string& key,
                                             const std::string& value);
    bool send_owner_question(const std::string& owner, const std::string& key, const std::string& value,
                             void* user_data);

    // Main thread only (start/stop/destructor).
    bool m_started;

    // Locks itself.
    CConfigFileManagerFullamount m_file_manager;

    // Guarded by m_subscribe_mutex.
    Platform::CMutex m_subscribe_mutex;
    Json::Value m_subscribe GUARDED_BY(m_subscribe_mutex);
    size_t m_subscribe_entries GUARDED_BY(m_subscribe_mutex) = 0;

    // Guarded by m_pending_mutex.
    Platform::CMutex m_pending_mutex;
    std::map<uint64_t, std::unique_ptr<PendingReply>> m_pending_replies GUARDED_BY(m_pending_mutex);
    std::map<std::string, size_t> m_questions_per_owner GUARDED_BY(m_pending_mutex);

    // Incremented by notify_to_owner, which holds m_subscribe_mutex.
    uint64_t m_notify_serial GUARDED_BY(m_subscribe_mutex);
};

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
