// CGatewayStack: every program of the gateway loop started as a real process, in the order the
// run script uses: bus, keychain, broker, bridge, cloud simulator, then config-manager. Each has
// its own private bus, broker port and folder, so tests can run side by side.
#ifndef CM_E2E_GATEWAY_STACK_H
#define CM_E2E_GATEWAY_STACK_H

#include <memory>
#include <string>

#include "quorel/testsupport/bus_client.h"
#include "quorel/testsupport/child_process.h"
#include "quorel/testsupport/mosquitto_broker.h"
#include "quorel/testsupport/private_bus.h"

namespace Quorel {
namespace Iot {
namespace Testing {

class CGatewayStack {
public:
    static constexpr const char* kDevice = "pk01/gw-7";

    CGatewayStack();
    ~CGatewayStack();

    // shadows: the simulator's state file to start from ("" for none). False, with what went wrong
    // in failure(), when a program did not come up.
    bool start(const std::string& shadows);
    const std::string& failure() const { return m_failure; }

    CMosquittoBroker& broker() { return m_broker; }
    CChildProcess& service() { return *m_service; }
    CChildProcess& bridge() { return *m_bridge; }
    CChildProcess& cloud() { return *m_cloud; }

    // get_config over the bus: the value, or "<code N>" / "<no answer>".
    std::string get(const std::string& key);
    int32_t set(const std::string& key, const std::string& value);
    // A simulator command ("desire", "report", "show") run to its end.
    CProcessResult cloud_command(const std::vector<std::string>& args);
    // The last lines of every program's output, for a failure message.
    std::string logs() const;

private:
    bool fail(const std::string& what);
    bool name_owned(const std::string& name);

    std::string m_dir;
    std::string m_failure;
    CPrivateBus m_bus;
    CMosquittoBroker m_broker;
    std::unique_ptr<CChildProcess> m_keychain;
    std::unique_ptr<CChildProcess> m_bridge;
    std::unique_ptr<CChildProcess> m_cloud;
    std::unique_ptr<CChildProcess> m_service;
    std::unique_ptr<CBusClient> m_client;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
