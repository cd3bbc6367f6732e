#include "bridge_fixture.h"

#include <json/json.h>
#include <signal.h>

#include <iostream>
#include <sstream>

#include "quorel/testsupport/wait.h"

namespace BridgeTesting {

namespace {

size_t occurrences(const std::string& text, const std::string& fragment) {
    size_t count = 0;
    for (size_t at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + fragment.size())) {
        ++count;
    }
    return count;
}

}  // namespace

std::string describe(const CAnswer& answer) {
    if (!answer.answered) return "no answer";
    if (!answer.error_name.empty()) return "error " + answer.error_name;
    return answer.text;
}

void CBridgeTest::TearDown() {
    // Every bridge still running must also stop cleanly: in the sanitizer build this is where
    // leaks and late memory errors show, as a non-zero status.
    if (m_bridge.running()) {
        m_bridge.signal(SIGTERM);
        EXPECT_TRUE(m_bridge.wait_exit(std::chrono::seconds(5)));
        EXPECT_EQ(m_bridge.exit_status(), 0);
    }
    for (const char* report : {"AddressSanitizer", "LeakSanitizer", "runtime error:"}) {
        EXPECT_EQ(m_bridge.err().find(report), std::string::npos) << report;
    }
    if (HasFailure()) std::cerr << "--- bridge log ---\n" << m_bridge.err() << "--- broker log ---\n" << m_broker.log();
}

bool CBridgeTest::start_environment(bool with_broker) {
    EXPECT_TRUE(m_bus.start()) << "no private bus";
    if (with_broker) {
        EXPECT_TRUE(m_broker.start()) << "no broker";
    }
    m_client.reset(new CBusClient(m_bus.address()));
    EXPECT_TRUE(m_client->connect()) << "no bus client";
    return !::testing::Test::HasFailure();
}

bool CBridgeTest::start_bridge(const std::vector<std::string>& extra, bool wait_for_broker, int port) {
    std::vector<std::string> argv = {
        BRIDGE_BINARY, "--host",       "127.0.0.1", "--port", std::to_string(port != 0 ? port : m_broker.port()),
        "--address",   m_bus.address()};
    argv.insert(argv.end(), extra.begin(), extra.end());
    if (!m_bridge.start(argv)) {
        ADD_FAILURE() << "cannot start the bridge: " << m_bridge.error();
        return false;
    }
    const bool named = wait_until(
        [&] {
            CCallBuilder has_owner("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                   "NameHasOwner");
            has_owner.str(kName);
            const CRecordedMessage reply = m_client->call(has_owner, 1000);
            return (!reply.args.empty() && reply.args[0] == "1") || !m_bridge.running();
        },
        std::chrono::seconds(10));
    if (!named || !m_bridge.running()) {
        ADD_FAILURE() << "the bridge did not take " << kName << ":\n" << m_bridge.err();
        return false;
    }
    if (wait_for_broker && !wait_for_log("connected to the broker")) {
        ADD_FAILURE() << "the bridge did not connect to the broker";
        return false;
    }
    return true;
}

size_t CBridgeTest::log_count(const std::string& fragment) const { return occurrences(m_bridge.err(), fragment); }

bool CBridgeTest::wait_for_log(const std::string& fragment, size_t n, std::chrono::milliseconds timeout) {
    return wait_until([&] { return log_count(fragment) >= n; }, timeout);
}

CCallBuilder CBridgeTest::bridge_call(const std::string& member) {
    return CCallBuilder(kName, kPath, kInterface, member);
}

CAnswer CBridgeTest::call(CCallBuilder& builder, int timeout_ms) {
    const auto start = std::chrono::steady_clock::now();
    const CRecordedMessage reply = m_client->call(builder, timeout_ms);
    CAnswer answer;
    answer.elapsed_ms = elapsed_ms(start);
    answer.answered = reply.type != 0;
    answer.error_name = m_client->last_error_name();
    if (reply.type != DBUS_MESSAGE_TYPE_METHOD_RETURN || reply.args.size() != 1) return answer;
    answer.text = reply.args[0];
    Json::Value root;
    Json::CharReaderBuilder reader;
    std::string errors;
    std::istringstream in(answer.text);
    if (Json::parseFromStream(reader, in, &root, &errors) && root.isObject()) {
        if (root["code"].isInt()) answer.code = root["code"].asInt();
        if (root["message"].isString()) answer.message = root["message"].asString();
    }
    return answer;
}

CAnswer CBridgeTest::subscribe(const std::string& topic, const std::string& subscriber, int timeout_ms) {
    CCallBuilder builder = bridge_call("subscribe");
    builder.str(topic).str(subscriber).i32(0);
    return call(builder, timeout_ms);
}

CAnswer CBridgeTest::publish(const std::string& topic, const std::string& payload, int timeout_ms) {
    CCallBuilder builder = bridge_call("publish");
    builder.str(topic).str(payload).i32(0);
    return call(builder, timeout_ms);
}

std::unique_ptr<CFakeService> CBridgeTest::start_listener(const std::string& name) {
    std::unique_ptr<CFakeService> listener(new CFakeService(m_bus.address(), name));
    EXPECT_TRUE(listener->start()) << "cannot own " << name;
    return listener;
}

std::unique_ptr<CMqttClient> CBridgeTest::mqtt_client() {
    std::unique_ptr<CMqttClient> client(new CMqttClient());
    EXPECT_TRUE(client->connect(m_broker.host(), m_broker.port())) << "cannot connect to the broker";
    return client;
}

std::vector<std::string> CBridgeTest::events(const CFakeService& listener) {
    std::vector<std::string> result;
    for (const CRecordedMessage& event : listener.received("subscribe_event")) {
        result.push_back(event.args.size() == 2 ? event.args[0] + "|" + event.args[1] : "<" + event.signature + ">");
    }
    return result;
}

}  // namespace BridgeTesting
