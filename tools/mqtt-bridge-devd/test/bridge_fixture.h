// CBridgeTest: one bridge (the real binary) for one test, on a private bus of its own and against
// a real mosquitto of its own, with a plain bus client to call it and helpers that read its JSON
// answers. Every case starts its own daemons, so the cases run in parallel.
#ifndef MQTT_BRIDGE_DEVD_TEST_BRIDGE_FIXTURE_H
#define MQTT_BRIDGE_DEVD_TEST_BRIDGE_FIXTURE_H

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "quorel/testsupport/bus_client.h"
#include "quorel/testsupport/child_process.h"
#include "quorel/testsupport/fake_service.h"
#include "quorel/testsupport/mosquitto_broker.h"
#include "quorel/testsupport/mqtt_client.h"
#include "quorel/testsupport/private_bus.h"

namespace BridgeTesting {

using namespace Quorel::Iot::Testing;

constexpr char kName[] = "iot.bridge.mqtt";
constexpr char kPath[] = "/iot/bridge/mqtt";
constexpr char kInterface[] = "iot.bridge.mqtt";
constexpr char kAdapter[] = "iot.dmp.config.adapter";

// The bridge's answer to one call.
struct CAnswer {
    bool answered = false;   // a reply or an error reply came
    std::string error_name;  // set for an error reply
    std::string text;        // the JSON text of a reply
    int code = -1;           // its "code", -1 when absent
    std::string message;     // its "message"
    long long elapsed_ms = 0;
};

std::string describe(const CAnswer& answer);

class CBridgeTest : public ::testing::Test {
protected:
    void TearDown() override;

    // The private bus, the broker and a client; false (with a gtest failure) at the first problem.
    bool start_environment(bool with_broker = true);
    // Starts the bridge against the broker's port (or port), with extra arguments, and waits
    // until it owns its name; with wait_for_broker also until it has connected to the broker.
    bool start_bridge(const std::vector<std::string>& extra = {}, bool wait_for_broker = true, int port = 0);
    // Waits until the bridge has logged a line containing fragment at least n times.
    bool wait_for_log(const std::string& fragment, size_t n = 1,
                      std::chrono::milliseconds timeout = std::chrono::seconds(10));
    size_t log_count(const std::string& fragment) const;

    CAnswer call(CCallBuilder& builder, int timeout_ms = 5000);
    CAnswer subscribe(const std::string& topic, const std::string& subscriber = kAdapter, int timeout_ms = 5000);
    CAnswer publish(const std::string& topic, const std::string& payload, int timeout_ms = 5000);
    static CCallBuilder bridge_call(const std::string& member);

    // A bus service that owns name and records the signals addressed to it, as the adapter does
    // (no match rules).
    std::unique_ptr<CFakeService> start_listener(const std::string& name);
    // An MQTT client connected to the broker.
    std::unique_ptr<CMqttClient> mqtt_client();

    // Events received by listener, as "topic|payload".
    static std::vector<std::string> events(const CFakeService& listener);

    CPrivateBus m_bus;
    CMosquittoBroker m_broker;
    CChildProcess m_bridge;
    std::unique_ptr<CBusClient> m_client;
};

}  // namespace BridgeTesting

#endif
