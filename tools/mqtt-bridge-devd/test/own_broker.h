// COwnBroker: a real mosquitto for the cases the shared test broker cannot play: one whose
// configuration the test chooses (a plugin refusing subscriptions), and one the test can freeze
// (SIGSTOP) so that acknowledgements stop coming while the connection stays up.
#ifndef MQTT_BRIDGE_DEVD_TEST_OWN_BROKER_H
#define MQTT_BRIDGE_DEVD_TEST_OWN_BROKER_H

#include <memory>
#include <string>

#include "quorel/testsupport/child_process.h"

namespace BridgeTesting {

class COwnBroker {
public:
    COwnBroker();
    ~COwnBroker();
    COwnBroker(const COwnBroker&) = delete;
    COwnBroker& operator=(const COwnBroker&) = delete;

    // Refuses SUBSCRIBE (SUBACK 0x80) for every filter under prefix/, through mosquitto's own
    // dynamic security plugin. Call before start(); false when the plugin is not installed.
    bool refuse_subscriptions_under(const std::string& prefix);
    // Starts on a free port and waits until it accepts connections.
    bool start();
    bool freeze();
    bool thaw();
    // SIGKILL, frozen or not: its connections close as a crashed broker's do.
    void kill();
    int port() const { return m_port; }
    std::string log() const { return m_process ? m_process->err() : std::string(); }

private:
    std::string m_dir;
    std::string m_extra_config;
    int m_port = 0;
    std::unique_ptr<Quorel::Iot::Testing::CChildProcess> m_process;
};

}  // namespace BridgeTesting

#endif
