// CConfigAdatper: the cloud shadow adapter, bus service "iot.dmp.config.adapter".
//
// A client of the configuration service (identity reads, observer of "gw_vexa_serialNumber" and
// "gw_orlo_reply", writes of the seven synchronised keys) and of the MQTT bridge
// "iot.bridge.mqtt" (subscription of the shadow get topic, publications on the update topic).
//
// Threads: start, stop and the destructor run on the entry thread. message_request,
// message_signal and message_error run on the bus reader thread. start creates two detached
// POSIX threads (topic subscription, shadow synchronisation) that are never joined: stop does
// nothing, by design, since the adapter never marks itself started. They share a heap core
// with this object and outlive it; the destructor cuts them off the bus before the connection
// goes, so deleting a started adapter is safe at any moment.
//
// Result codes of the client calls: 0 success, 100000 reply code unreadable, 100001 null key or
// negative timeout, 100008 the bus call failed, 100100 no value in a get reply, 100104 bad
// subscription type, anything else passed through from the configuration service.
#ifndef QUOREL_CONFIGMANAGER_CONFIG_ADAPTER_H
#define QUOREL_CONFIGMANAGER_CONFIG_ADAPTER_H

#include <pthread.h>

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "quorel/dbus/dbus_server.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

class CAdapterCore;

class CConfigAdatper : public DBus::CDBusServer {
public:
    CConfigAdatper(const std::string& address, const std::string& name, const std::list<std::string>& rules);
    ~CConfigAdatper() override;

    // True on success (and when already started, which never happens: see the class comment).
    bool start();
    void stop();

    void message_request(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, bool& need_reply) override;
    void message_signal(DBus::CDBusSignal& signal) override;
    void message_error(int32_t code) override;

    // Blocking calls to "iot.dmp.configmanager"; not from the bus reader thread. get_config and
    // set_config always wait 500 ms; subscribe_config waits timeout ms.
    int32_t get_config(const std::string& key, std::string& value, uint32_t timeout);
    int32_t set_config(const std::string& key, const std::string& value, uint32_t timeout);
    int32_t subscribe_config(const char* key, int32_t type, int32_t timeout);

private:
    void handle_notify_config(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, bool& need_reply);
    void start_threads();

    // Entry thread only.
    bool m_started;
    pthread_t m_subscribe_thread;
    pthread_t m_shadow_thread;
    std::string m_product_key;
    std::string m_device_name;

    // Shared with the detached threads; internally synchronised.
    std::shared_ptr<CAdapterCore> m_core;
};

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
