// CConfigBusiness: the configuration service "iot.dmp.configmanager" on the bus.
//
// Answers every method on its bus reader thread; for a key with an owner, a set request is held
// (PendingReply) until the owner answers its "notify_config" call. start/stop run on the main
// thread. The process-wide exit semaphore g_exit_sem lives here because message_error posts it.
#ifndef QUOREL_CONFIGMANAGER_CONFIG_BUSINESS_H
#define QUOREL_CONFIGMANAGER_CONFIG_BUSINESS_H

#include <json/json.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>

#include "quorel/configmanager/config_file_manager.h"
#include "quorel/dbus/dbus_server.h"
#include "quorel/platform/mutex.h"
#include "quorel/platform/semaphore.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

// Posted by the SIGTERM handler and by CConfigBusiness::message_error; the entry waits on it.
extern Platform::CSemaphore g_exit_sem;

class CConfigBusiness : public DBus::CDBusServer {
public:
    CConfigBusiness(const std::string& address, const std::string& name, const std::list<std::string>& rules);
    ~CConfigBusiness() override;

    bool start(const std::string& path);
    void stop();

    void message_request(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, bool& need_reply) override;
    void message_signal(DBus::CDBusSignal& signal) override;
    void message_error(int32_t code) override;

    // ---- the rest is owned by the configuration service's implementation ----
};

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
