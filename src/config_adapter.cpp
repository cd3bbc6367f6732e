// The adapter's lifecycle, its detached threads and the routing of its incoming traffic.
#include "quorel/configmanager/config_adapter.h"

#include <pthread.h>
#include <unistd.h>

#include <exception>

#include "config_adapter_core.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/src/config_adapter.cpp";
constexpr unsigned kSubscribeRetrySeconds = 15;

// Each thread receives its own heap copy of the core pointer (the documented hand-off of the
// start argument) and keeps the core alive for as long as it runs.
std::shared_ptr<CAdapterCore> take_core(void* arg) {
    auto* handed = static_cast<std::shared_ptr<CAdapterCore>*>(arg);
    std::shared_ptr<CAdapterCore> core = std::move(*handed);
    delete handed;
    return core;
}

void* subscribe_thread_main(void* arg) {
    std::shared_ptr<CAdapterCore> core = take_core(arg);
    while (core->run_subscribe_pass()) sleep(kSubscribeRetrySeconds);
    return nullptr;
}

void* shadow_thread_main(void* arg) {
    std::shared_ptr<CAdapterCore> core = take_core(arg);
    while (core->run_shadow_pass()) {
    }
    return nullptr;
}

void create_detached(pthread_t& thread, void* (*main)(void*), const std::shared_ptr<CAdapterCore>& core) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    auto* handed = new std::shared_ptr<CAdapterCore>(core);
    // A thread that cannot be created is simply missing; the adapter runs on without it.
    if (pthread_create(&thread, &attr, main, handed) != 0) delete handed;
    pthread_attr_destroy(&attr);
}

}  // namespace

CConfigAdatper::CConfigAdatper(const std::string& address, const std::string& name, const std::list<std::string>& rules)
    : DBus::CDBusServer(address, name, rules),
      m_started(false),
      m_subscribe_thread(),
      m_shadow_thread(),
      m_core(std::make_shared<CAdapterCore>(this)) {}

CConfigAdatper::~CConfigAdatper() {
    stop();
    // The detached threads run on: cut them off this object's handle first, then end the reader
    // thread here, while this object is still whole, rather than in the base destructor.
    m_core->gate().close();
    disconnect();
}

bool CConfigAdatper::start() {
    if (m_started) return true;
    QLOG(1, "start CConfigAdatper");
    m_core->reset_shadow();
    if (connect_to_bus() != 0) {
        QLOG(3, "start, connect to dbus fail.");
        return false;
    }
    get_config("gw_system_productkey", m_product_key, 500);
    get_config("gw_system_devicename", m_device_name, 500);
    subscribe_config("gw_vexa_serialNumber", 1, 500);
    subscribe_config("gw_orlo_reply", 1, 500);
    QLOG(1, "subscribe config:'gw_vexa_serialNumber' and 'gw_orlo_reply' ");
    m_core->set_topics("/shadow/get/" + m_product_key + "/" + m_device_name,
                       "/shadow/update/" + m_product_key + "/" + m_device_name);
    start_threads();
    m_core->get_shadow_all();
    // m_started stays false on purpose: stop must leave the threads and the connection alone.
    return true;
}

void CConfigAdatper::start_threads() {
    create_detached(m_subscribe_thread, &subscribe_thread_main, m_core);
    create_detached(m_shadow_thread, &shadow_thread_main, m_core);
}

void CConfigAdatper::stop() {
    if (!m_started) return;
    pthread_cancel(m_subscribe_thread);
    pthread_cancel(m_shadow_thread);
    disconnect();
}

int32_t CConfigAdatper::get_config(const std::string& key, std::string& value, uint32_t timeout) {
    return m_core->get_config(key, value, timeout);
}

int32_t CConfigAdatper::set_config(const std::string& key, const std::string& value, uint32_t timeout) {
    return m_core->set_config(key, value, timeout);
}

int32_t CConfigAdatper::subscribe_config(const char* key, int32_t type, int32_t timeout) {
    return m_core->subscribe_config(key, type, timeout);
}

void CConfigAdatper::message_request(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, bool& need_reply) {
    try {
        if (request.get_member() == "notify_config") handle_notify_config(request, reply, need_reply);
    } catch (const std::exception& e) {
        QLOG(3, "message_request, exception:%s.", e.what());
    }
}

void CConfigAdatper::message_signal(DBus::CDBusSignal& signal) {
    QLOG(1, "message_signal, recvice a signal.");
    try {
        if (signal.get_member() != "subscribe_event") return;
        std::string topic;
        std::string payload;
        signal.get_string(topic);
        signal.get_string(payload);
        if (topic == m_core->get_topic()) m_core->device_shadow_proc(topic, payload);
    } catch (const std::exception& e) {
        QLOG(3, "message_signal, exception:%s.", e.what());
    }
}

// The adapter ignores the loss of its connection: the configuration service sees it too and
// ends the process.
void CConfigAdatper::message_error(int32_t) {}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
