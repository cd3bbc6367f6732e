// CServiceHarness: the configuration service running for one test on a private bus with a fake
// keychain, and a plain client connection to call it from the test thread.
//
// Header-only on purpose: it needs the configuration service (cm_business), which the test
// support library must not link. Tests that include it link cm_business themselves.
//
// Setup order: private bus, CONFIG_MANAGER_BUS_ADDRESS, fake keychain, kc_init, default file,
// service, client. Teardown runs the other way round (kc_deinit after the service is gone).
#ifndef QUOREL_TESTSUPPORT_SERVICE_FIXTURE_H
#define QUOREL_TESTSUPPORT_SERVICE_FIXTURE_H

#include <dbus/dbus.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <list>
#include <memory>
#include <string>

#include "quorel/configmanager/config_business.h"
#include "quorel/keychain/keychain.h"
#include "quorel/testsupport/bus_client.h"
#include "quorel/testsupport/fake_keychain.h"
#include "quorel/testsupport/fake_service.h"
#include "quorel/testsupport/keychain_environment.h"
#include "quorel/testsupport/private_bus.h"

namespace Quorel {
namespace Iot {
namespace Testing {

// One argument of a call: CArg::s("key"), CArg::i(1), CArg::t(1700000000000).
struct CArg {
    char type;
    std::string text;
    uint64_t number;
    static CArg s(const std::string& value) { return {'s', value, 0}; }
    static CArg i(int32_t value) { return {'i', "", static_cast<uint64_t>(static_cast<uint32_t>(value))}; }
    static CArg t(uint64_t value) { return {'t', "", value}; }
};

class CServiceHarness {
public:
    static constexpr const char* kName = "iot.dmp.configmanager";
    static constexpr const char* kPath = "/iot/dmp/configmanager";
    static constexpr const char* kConfigItem = "_configmanager.config.file";

    explicit CServiceHarness(std::string default_json = R"({"config": {}, "metadata": {}})")
        : m_default_json(std::move(default_json)) {}
    ~CServiceHarness() { stop(); }
    CServiceHarness(const CServiceHarness&) = delete;
    CServiceHarness& operator=(const CServiceHarness&) = delete;

    // Everything up to and including a started service and client; false at the first failure.
    bool start() {
        if (!m_env.start()) return false;
        if (!write_default_file()) return false;
        m_client.reset(new CBusClient(address()));
        if (!m_client->connect()) return false;
        return start_service();
    }

    // A new service object on the same bus, keychain and default file (a restart of the process).
    bool start_service() {
        m_service.reset(new Configmanager::CConfigBusiness(address(), kName, std::list<std::string>()));
        return m_service->start(m_default_path);
    }
    void stop_service() {
        if (m_service) m_service->stop();
        m_service.reset();
    }

    void stop() {
        stop_service();
        if (m_client) m_client->close();
        m_env.stop();
        if (!m_default_path.empty()) {
            unlink(m_default_path.c_str());
            rmdir(m_dir.c_str());
            m_default_path.clear();
        }
    }

    // A call of member on the service with args, sent from the client; the answer, or type 0.
    CRecordedMessage invoke(const std::string& member, std::initializer_list<CArg> args = {},
                            const std::string& interface = kName) {
        return m_client->collect(send(member, args, interface));
    }
    // The same without waiting: collect the answer later with client().collect(ticket).
    size_t send(const std::string& member, std::initializer_list<CArg> args = {},
                const std::string& interface = kName) {
        CCallBuilder builder(kName, kPath, interface, member);
        for (const CArg& arg : args) {
            if (arg.type == 's') builder.str(arg.text);
            if (arg.type == 'i') builder.i32(static_cast<int32_t>(static_cast<uint32_t>(arg.number)));
            if (arg.type == 't') builder.u64(arg.number);
        }
        return m_client->send_call(builder);
    }

    Configmanager::CConfigBusiness& service() { return *m_service; }
    CBusClient& client() { return *m_client; }
    CFakeKeychain& keychain() { return m_env.keychain(); }
    CPrivateBus& bus() { return m_env.bus(); }
    const std::string& address() { return m_env.bus().address(); }
    const std::string& default_path() const { return m_default_path; }

private:
    bool write_default_file() {
        char tmpl[] = "/tmp/cm-default-XXXXXX";
        if (mkdtemp(tmpl) == nullptr) return false;
        m_dir = tmpl;
        m_default_path = m_dir + "/default.json";
        std::ofstream out(m_default_path);
        out << m_default_json;
        return static_cast<bool>(out);
    }

    std::string m_default_json;
    std::string m_dir;
    std::string m_default_path;
    CKeychainEnvironment m_env;
    std::unique_ptr<CBusClient> m_client;
    std::unique_ptr<Configmanager::CConfigBusiness> m_service;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
