#include "cmctl_fixture.h"

#include <ctype.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <memory>
#include <sstream>

#include "quorel/configmanager/base64.h"
#include "quorel/testsupport/wait.h"

namespace Quorel {
namespace Iot {
namespace Testing {

namespace {

bool parse(const std::string& text, Json::Value& out) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &out, nullptr);
}

}  // namespace

std::string envelope(const std::string& data, unsigned long long ts) {
    return "{\"data\":\"" + data + "\",\"ts\":" + std::to_string(ts) + "}\n";
}

std::string base64(const std::string& text) {
    std::string out;
    Configmanager::base64_encode(text, out);
    return out;
}

std::string after_utc_time(const std::string& line) {
    const std::string shape = "dddd-dd-ddTdd:dd:dd.ddd+00:00 ";
    bool matches = line.size() >= shape.size();
    for (size_t i = 0; matches && i < shape.size(); ++i) {
        matches = shape[i] == 'd' ? isdigit(static_cast<unsigned char>(line[i])) != 0 : line[i] == shape[i];
    }
    return matches ? line.substr(shape.size()) : "no time: " + line;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) lines.push_back(line);
    return lines;
}

CProcessResult run_cmctl(const std::vector<std::string>& args, const std::vector<std::string>& environment,
                         const std::string& input) {
    std::vector<std::string> argv = {CMCTL_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    return run_process(argv, environment, input, std::chrono::seconds(20));
}

std::string CCmctlTest::default_document() {
    return R"({"config": {"gw_orlo_level": ")" + base64("2") + R"(", "gw_orlo_project": ")" + base64("gateway-logs") +
           R"(", "gw_vexa_serialNumber": ")" + base64(envelope("SN-0001", 1700000000000ULL)) + R"("}, "metadata": {}})";
}

void CCmctlTest::SetUp() {
    ASSERT_TRUE(m_bus.start());
    m_daemon_client.reset(new CBusClient(m_bus.address()));
    ASSERT_TRUE(m_daemon_client->connect());
    m_keychain.reset(new CFakeKeychain(m_bus.address()));
    ASSERT_TRUE(m_keychain->start());
    char tmpl[] = "/tmp/cmctl-test-XXXXXX";
    ASSERT_NE(nullptr, mkdtemp(tmpl));
    m_dir = tmpl;
    std::ofstream(m_dir + "/default.json") << default_document();
    ASSERT_TRUE(m_service.start({CM_BINARY, m_dir + "/default.json"}, environment())) << m_service.error();
    ASSERT_TRUE(wait_until([&] { return name_has_owner("iot.dmp.configmanager") || !m_service.running(); },
                           std::chrono::seconds(10)));
    ASSERT_TRUE(m_service.running()) << m_service.err();
}

void CCmctlTest::TearDown() {
    m_service.kill_and_reap();
    if (m_keychain) m_keychain->stop();
    unlink((m_dir + "/default.json").c_str());
    rmdir(m_dir.c_str());
}

std::vector<std::string> CCmctlTest::environment() const {
    return {"CONFIG_MANAGER_BUS_ADDRESS=" + m_bus.address(), "TZ=UTC"};
}

CProcessResult CCmctlTest::cmctl(const std::vector<std::string>& args, const std::string& input) {
    return run_cmctl(args, environment(), input);
}

bool CCmctlTest::start_cmctl(CChildProcess& child, const std::vector<std::string>& args, bool with_stdin) {
    std::vector<std::string> argv = {CMCTL_BINARY};
    argv.insert(argv.end(), args.begin(), args.end());
    return child.start(argv, environment(), with_stdin);
}

Json::Value CCmctlTest::saved_subscriptions() const {
    std::string bytes;
    Json::Value document;
    if (!m_keychain->get_item("_configmanager.config.file", bytes)) return Json::Value();
    // The keychain item may end with the C string's NUL.
    if (!parse(bytes.c_str(), document) || !document.isObject()) return Json::Value();
    return document["metadata"]["subscribe"];
}

bool CCmctlTest::wait_saved(const std::string& name, const std::string& key, bool present) const {
    return wait_until([&] {
        const Json::Value table = saved_subscriptions();
        const bool there = table.isObject() && table[key].isObject() && table[key].isMember(name);
        return there == present;
    });
}

bool CCmctlTest::saved_nowhere(const std::string& name) const {
    const Json::Value table = saved_subscriptions();
    if (!table.isObject()) return true;
    for (const std::string& key : table.getMemberNames()) {
        if (table[key].isObject() && table[key].isMember(name)) return false;
    }
    return true;
}

bool CCmctlTest::name_has_owner(const std::string& name) const {
    CCallBuilder call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner");
    call.str(name);
    return m_daemon_client->call(call).args == std::vector<std::string>{"1"};
}

bool CCmctlTest::wait_lines(const CChildProcess& child, size_t n) {
    return wait_until([&] { return lines_of(child.out()).size() >= n; });
}

bool CCmctlTest::wait_err(const CChildProcess& child, const std::string& text) {
    return wait_until([&] { return child.err().find(text) != std::string::npos; });
}

void CCmctlTest::stop_service() {
    m_service.signal(SIGTERM);
    if (!m_service.wait_exit(std::chrono::seconds(10))) m_service.kill_and_reap();
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
