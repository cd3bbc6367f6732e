// CMqttLink: the bridge's one MQTT session, on libmosquitto without its network thread: the
// bridge's poll loop watches the socket and calls in here, so messages are read, and handed on,
// by the same thread that writes to the bus.
//
// It connects without blocking (only the host name look-up can), reconnects with a growing
// pause of up to a second whenever the broker is away, and reports what happens to a listener.
// Callbacks run inside handle() and service(), never inside subscribe() or publish().
#ifndef MQTT_BRIDGE_DEVD_MQTT_LINK_H
#define MQTT_BRIDGE_DEVD_MQTT_LINK_H

#include <poll.h>

#include <chrono>
#include <string>

struct mosquitto;
struct mosquitto_message;

class CMqttLink {
public:
    using Clock = std::chrono::steady_clock;

    class IListener {
    public:
        virtual ~IListener() = default;
        // The broker has accepted the session (CONNACK 0): anything subscribed before is gone.
        virtual void on_connected() = 0;
        // The session that on_connected announced has ended.
        virtual void on_connection_lost() = 0;
        // SUBACK for mid: granted false when the broker answered 0x80 (or any failure code).
        virtual void on_subscribed(int mid, bool granted) = 0;
        // PUBACK for mid.
        virtual void on_published(int mid) = 0;
        virtual void on_message(const mosquitto_message& message) = 0;
    };

    CMqttLink(const std::string& host, int port, IListener& listener);
    ~CMqttLink();
    CMqttLink(const CMqttLink&) = delete;
    CMqttLink& operator=(const CMqttLink&) = delete;

    // Makes the client; the first connection attempt is made by the first service(). False when
    // libmosquitto cannot make one.
    bool init();
    bool connected() const { return m_state == State::Connected; }

    // Poll entry for the socket (fd -1 while there is none); with reading false the socket is
    // watched for writing only, which leaves incoming messages with the broker.
    pollfd poll_entry(bool reading) const;
    void handle(short revents);
    // Connects when due and lets libmosquitto keep the session alive; returns how soon it wants
    // to be called again.
    Clock::duration service(Clock::time_point now);

    // Both return libmosquitto's result code; mid identifies the acknowledgement to come.
    int subscribe(const std::string& filter, int& mid);
    // QoS 1, not retained.
    int publish(const std::string& topic, const std::string& payload, int& mid);
    // Sends DISCONNECT if connected, as far as the socket takes it without waiting.
    void disconnect();

private:
    enum class State { Waiting, Connecting, Connected };

    static void on_connect(mosquitto*, void* self, int rc);
    static void on_disconnect(mosquitto*, void* self, int rc);
    static void on_subscribe(mosquitto*, void* self, int mid, int count, const int* granted);
    static void on_publish(mosquitto*, void* self, int mid);
    static void on_message_arrived(mosquitto*, void* self, const mosquitto_message* message);

    void attempt_connection();
    // After any failure: the socket is closed, and the next attempt waits for the back-off.
    void lost(const char* why);
    void check(int rc, const char* what);
    void acknowledge_promptly();

    std::string m_host;
    int m_port;
    IListener& m_listener;
    mosquitto* m_mosq = nullptr;
    State m_state = State::Waiting;
    Clock::time_point m_next_attempt{};
    Clock::duration m_backoff;
    bool m_reported_unreachable = false;  // one log line per outage, not one per attempt
};

#endif
