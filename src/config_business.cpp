// Lifecycle and dispatch of the configuration service.
#include "quorel/configmanager/config_business.h"

#include <exception>

#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {
constexpr const char kLogFile[] = "core-services/config-manager/src/config_business";
constexpr const char kObjectPath[] = "/iot/dmp/configmanager";
constexpr const char kWatchdogId[] = "config-manager";
constexpr uint32_t kWatchdogIntervalS = 10;
constexpr const char kShutdownAnswer[] = "{\"code\":-1000902,\"message\":\"server closed.\"}";
}  // namespace

Platform::CSemaphore g_exit_sem(0);

CConfigBusiness::CConfigBusiness(const std::string& address, const std::string& name,
                                 const std::list<std::string>& rules)
    : DBus::CDBusServer(address, name, rules), m_started(false), m_notify_serial(0) {}

CConfigBusiness::~CConfigBusiness() {
    stop();
    // The reader thread must be gone before the members it uses are.
    disconnect();
}

bool CConfigBusiness::start(const std::string& path) {
    if (m_started) return true;
    if (!m_file_manager.start(path)) {
        QLOG(3, "start, config manager start fail.");
        return false;
    }
    load_subscribe_map();
    if (connect_to_bus() != 0) {
        QLOG(3, "start, connect to dbus fail.");
        m_file_manager.stop();
        return false;
    }
    set_watchdog(kObjectPath, kWatchdogId, kWatchdogIntervalS);
    m_started = true;
    return true;
}

void CConfigBusiness::stop() {
    if (!m_started) return;
    m_started = false;
    // No request is taken from here on, so every set answered 0 is in the document before the
    // store's last save below; callers still waiting get an error from the bus when we leave it.
    stop_reading();
    {
        // Each waiting caller gets the shutdown text instead of a code; the records go with the map.
        Platform::CMutexGuard guard(m_pending_mutex);
        for (auto& entry : m_pending_replies) {
            entry.second->reply.set_string(kShutdownAnswer);
            if (!send_dbus_reply(entry.second->reply)) QLOG(3, "stop, send dbud reply.");
        }
        m_pending_replies.clear();
        m_questions_per_owner.clear();
    }
    m_file_manager.stop();
    // Completions still held by the bus layer come back to callback with status 1 and find nothing.
    disconnect();
}

void CConfigBusiness::message_request(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply,
                                      bool& need_reply) {
    const std::string member = request.get_member();
    // The reader thread must survive a foreign exception (a JSON conversion of an odd stored
    // value); the caller then gets whatever the handler had appended.
    try {
        if (member == "Introspect") {
            handle_introspect(reply);
        } else if (member == "get_config") {
            handle_get(request, reply);
        } else if (member == "set_config") {
            handle_set(request, reply, need_reply);
        } else if (member == "set_config_with_ts") {
            handle_set_with_ts(request, reply, need_reply);
        } else if (member == "subscribe_config") {
            handle_subscribe(request, reply);
        } else if (member == "unsubscribe_config") {
            handle_unsubscribe(request, reply);
        } else if (member == "get_config_batch") {
            handle_get_config_batch(request, reply);
        } else if (member == "get_config_with_ts") {
            handle_get_with_ts(request, reply);
        } else if (member == "get_config_batch_with_ts") {
            handle_get_config_batch_with_ts(request, reply);
        } else if (member == "get_config_keylist") {
            handle_get_keylist(request, reply);
        } else {
            QLOG(3, "message_request, method error, method:%s.", member.c_str());
        }
    } catch (const std::exception& e) {
        QLOG(3, "message_request, method:%s, exception:%s.", member.c_str(), e.what());
    }
}

void CConfigBusiness::message_signal(DBus::CDBusSignal& /*signal*/) { QLOG(1, "message_signal, recvice a signal."); }

void CConfigBusiness::message_error(int32_t code) {
    QLOG(3, "message_error, recvice a error:%d.", code);
    g_exit_sem.post();
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
