#include "gateway_stack.h"

#include <signal.h>
#include <stdlib.h>

#include <fstream>

#include "../adapter_harness.h"
#include "quorel/testsupport/fake_service.h"
#include "quorel/testsupport/wait.h"

namespace Quorel {
namespace Iot {
namespace Testing {

namespace {

using std::chrono::seconds;

std::string tail(const std::string& text, size_t lines) {
    size_t at = text.size();
    while (lines-- > 0 && at > 0) {
        at = text.rfind('\n', at - 1);
        if (at == std::string::npos) return text;
    }
    return text.substr(at);
}

}  // namespace

CGatewayStack::CGatewayStack() {
    char tmpl[] = "/tmp/cm-e2e-XXXXXX";
    if (mkdtemp(tmpl) != nullptr) m_dir = tmpl;
}

CGatewayStack::~CGatewayStack() {
    m_client.reset();
    // Newest first, as the run script stops them.
    for (auto* process : {&m_service, &m_cloud, &m_bridge, &m_keychain}) {
        if (*process && (*process)->running()) {
            (*process)->signal(SIGTERM);
            if (!(*process)->wait_exit(seconds(10))) (*process)->kill_and_reap();
        }
    }
    m_broker.stop();
    m_bus.stop();
    if (!m_dir.empty()) {
        const std::string command = "rm -rf '" + m_dir + "'";
        int ignored = system(command.c_str());
        (void)ignored;
    }
}

bool CGatewayStack::fail(const std::string& what) {
    m_failure = what + "\n" + logs();
    return false;
}

bool CGatewayStack::name_owned(const std::string& name) {
    CCallBuilder call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner");
    call.str(name);
    const CRecordedMessage answer = m_client->call(call, 2000);
    return answer.args.size() == 1 && answer.args[0] == "1";
}

bool CGatewayStack::start(const std::string& shadows) {
    if (m_dir.empty()) return fail("no folder");
    if (!m_bus.start()) return fail("the bus did not start");
    if (!m_broker.start()) return fail("mosquitto did not start: " + m_broker.log());
    m_client.reset(new CBusClient(m_bus.address()));
    if (!m_client->connect()) return fail("no bus client");
    const std::string port = std::to_string(m_broker.port());

    m_keychain.reset(new CChildProcess());
    if (!m_keychain->start({CM_KEYCHAIN_DEVD, m_dir + "/keychain", m_bus.address()}) ||
        !wait_until([&] { return name_owned("iot.gateway.security.keychain"); }, seconds(10))) {
        return fail("keychain-devd did not come up");
    }
    m_bridge.reset(new CChildProcess());
    if (!m_bridge->start({CM_BRIDGE, "--host", m_broker.host(), "--port", port, "--address", m_bus.address()}) ||
        !wait_until([&] { return name_owned("iot.bridge.mqtt"); }, seconds(10))) {
        return fail("the bridge did not come up");
    }
    if (!shadows.empty()) std::ofstream(m_dir + "/shadows.json") << shadows;
    m_cloud.reset(new CChildProcess());
    if (!m_cloud->start({CM_SHADOW_CLOUD, "--host", m_broker.host(), "--port", port, "serve", "--state",
                         m_dir + "/shadows.json"}) ||
        !wait_until([&] { return m_cloud->out().find("listening on") != std::string::npos; }, seconds(10))) {
        return fail("the simulator did not come up");
    }
    std::ofstream(m_dir + "/default.json") << identity_defaults();
    m_service.reset(new CChildProcess());
    if (!m_service->start({CM_BINARY, m_dir + "/default.json"}, {"CONFIG_MANAGER_BUS_ADDRESS=" + m_bus.address()}) ||
        !wait_until([&] { return name_owned("iot.dmp.config.adapter"); }, seconds(20))) {
        return fail("config-manager did not come up");
    }
    return true;
}

std::string CGatewayStack::get(const std::string& key) {
    CCallBuilder call("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager", "get_config");
    call.str(key);
    const CRecordedMessage answer = m_client->call(call, 2000);
    if (answer.args.empty()) return "<no answer>";
    if (answer.args[0] != "0" || answer.args.size() < 2) return "<code " + answer.args[0] + ">";
    return answer.args[1];
}

int32_t CGatewayStack::set(const std::string& key, const std::string& value) {
    CCallBuilder call("iot.dmp.configmanager", "/iot/dmp/configmanager", "iot.dmp.configmanager", "set_config");
    call.str(key).str(value);
    const CRecordedMessage answer = m_client->call(call, 5000);
    return answer.args.empty() ? -1 : std::atoi(answer.args[0].c_str());
}

CProcessResult CGatewayStack::cloud_command(const std::vector<std::string>& args) {
    std::vector<std::string> argv = {CM_SHADOW_CLOUD, "--host", m_broker.host(), "--port",
                                     std::to_string(m_broker.port())};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_process(argv);
}

std::string CGatewayStack::logs() const {
    std::string text;
    if (m_service) text += "--- config-manager:" + tail(m_service->err(), 15) + "\n";
    if (m_bridge) text += "--- bridge:" + tail(m_bridge->err() + m_bridge->out(), 10) + "\n";
    if (m_cloud) text += "--- shadow-cloud:" + tail(m_cloud->out() + m_cloud->err(), 10) + "\n";
    text += "--- mosquitto:" + tail(m_broker.log(), 10) + "\n";
    return text;
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
