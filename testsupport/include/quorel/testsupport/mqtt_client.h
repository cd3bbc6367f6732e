// CMqttClient: a plain MQTT client for tests (libmosquitto, with its own network thread). It plays
// whatever else sits on the broker: it publishes as the cloud would, and records every message of
// the topics it subscribed, with the time each arrived.
#ifndef QUOREL_TESTSUPPORT_MQTT_CLIENT_H
#define QUOREL_TESTSUPPORT_MQTT_CLIENT_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

struct mosquitto;
struct mosquitto_message;

namespace Quorel {
namespace Iot {
namespace Testing {

struct CMqttMessage {
    std::string topic;
    std::string payload;
    std::chrono::steady_clock::time_point arrived;
};

class CMqttClient {
public:
    CMqttClient();
    ~CMqttClient();
    CMqttClient(const CMqttClient&) = delete;
    CMqttClient& operator=(const CMqttClient&) = delete;

    // Connects and starts the network thread; true once the broker has accepted the connection.
    bool connect(const std::string& host, int port, std::chrono::milliseconds timeout = std::chrono::seconds(5));
    void disconnect();
    // True once the broker has acknowledged the subscription (patterns with + and # allowed).
    bool subscribe(const std::string& topic, int qos = 0, std::chrono::milliseconds timeout = std::chrono::seconds(5));
    // Publishes; with qos 1, true only once the broker has acknowledged it.
    bool publish(const std::string& topic, const std::string& payload, int qos = 0,
                 std::chrono::milliseconds timeout = std::chrono::seconds(5));

    std::vector<CMqttMessage> messages() const;
    std::vector<CMqttMessage> messages(const std::string& topic) const;
    bool wait_for_count(const std::string& topic, size_t n,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    void clear();

private:
    static void on_connect(mosquitto*, void* self, int rc);
    static void on_subscribe(mosquitto*, void* self, int mid, int, const int*);
    static void on_publish(mosquitto*, void* self, int mid);
    static void on_message(mosquitto*, void* self, const mosquitto_message* message);
    bool wait_for_mid(std::vector<int>& done, int mid, std::chrono::milliseconds timeout);

    mosquitto* m_mosq = nullptr;
    bool m_loop_started = false;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_changed;
    int m_connect_rc = -1;                 // guarded by m_mutex; -1 until CONNACK
    std::vector<int> m_subscribed;         // guarded by m_mutex: mids acknowledged
    std::vector<int> m_published;          // guarded by m_mutex: mids acknowledged
    std::vector<CMqttMessage> m_messages;  // guarded by m_mutex
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
