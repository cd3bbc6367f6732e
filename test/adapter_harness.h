// CAdapterHarness: the configuration service (with the device identity pk01 / gw-7 in its
// defaults), the fake MQTT bridge and a started cloud shadow adapter, on one private bus.
// Declare the log capture before the harness so that it outlives the adapter.
#ifndef CM_TEST_ADAPTER_HARNESS_H
#define CM_TEST_ADAPTER_HARNESS_H

#include <memory>
#include <string>

#include "quorel/configmanager/base64.h"
#include "quorel/configmanager/config_adapter.h"
#include "quorel/testsupport/fake_bridge.h"
#include "quorel/testsupport/service_fixture.h"
#include "quorel/testsupport/wait.h"

namespace Quorel {
namespace Iot {
namespace Testing {

inline std::string identity_defaults() {
    std::string product_key;
    std::string device_name;
    Configmanager::base64_encode("pk01", product_key);
    Configmanager::base64_encode("gw-7", device_name);
    return R"({"config": {"gw_system_productkey": ")" + product_key + R"(", "gw_system_devicename": ")" + device_name +
           R"("}})";
}

class CAdapterHarness {
public:
    static constexpr const char* kGetTopic = "/shadow/get/pk01/gw-7";
    static constexpr const char* kUpdateTopic = "/shadow/update/pk01/gw-7";

    CAdapterHarness() : m_service(identity_defaults()) {}
    ~CAdapterHarness() {
        m_adapter.reset();
        if (m_bridge) m_bridge->stop();
    }

    // Everything but the adapter's start, which the test may want to watch.
    bool prepare() {
        if (!m_service.start()) return false;
        m_bridge.reset(new CFakeBridge(m_service.address()));
        if (!m_bridge->start()) return false;
        m_adapter.reset(
            new Configmanager::CConfigAdatper(m_service.address(), "iot.dmp.config.adapter", std::list<std::string>()));
        return true;
    }
    bool start() { return prepare() && m_adapter->start(); }

    // The configuration service's answer to get_config: "<code>:<value>".
    std::string value_of(const std::string& key) {
        CRecordedMessage reply = m_service.invoke("get_config", {CArg::s(key)});
        return reply.args.size() == 2 ? reply.args[0] + ":" + reply.args[1] : "no answer";
    }
    bool wait_value(const std::string& key, const std::string& value) {
        return wait_until([&] { return value_of(key) == "0:" + value; });
    }
    bool set_value(const std::string& key, const std::string& value) {
        CRecordedMessage reply = m_service.invoke("set_config", {CArg::s(key), CArg::s(value)});
        return reply.args.size() == 1 && reply.args[0] == "0";
    }
    // Plays the cloud: a shadow document on the adapter's get topic.
    bool send_shadow(const std::string& document) { return m_bridge->emit_event(kGetTopic, document); }

    CServiceHarness& service() { return m_service; }
    CFakeBridge& bridge() { return *m_bridge; }
    Configmanager::CConfigAdatper& adapter() { return *m_adapter; }
    void delete_adapter() { m_adapter.reset(); }

private:
    CServiceHarness m_service;
    std::unique_ptr<CFakeBridge> m_bridge;
    std::unique_ptr<Configmanager::CConfigAdatper> m_adapter;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
