// CBridgeService: "iot.bridge.mqtt" itself. It answers "subscribe" and "publish" once the broker
// has acknowledged them, keeps the subscriptions in a CSubscriptionTable and renews them on every
// broker session, and turns each message the broker delivers into "subscribe_event" signals,
// one addressed to each subscriber whose filter matches.
//
// Single-threaded: it runs inside the bridge's poll loop, called by the bus link for calls and
// by the MQTT link for the broker's side.
#ifndef MQTT_BRIDGE_DEVD_BRIDGE_SERVICE_H
#define MQTT_BRIDGE_DEVD_BRIDGE_SERVICE_H

#include <dbus/dbus.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "bus_link.h"
#include "mqtt_link.h"
#include "pending_calls.h"
#include "subscription_table.h"

constexpr char kBridgeName[] = "iot.bridge.mqtt";
constexpr char kBridgePath[] = "/iot/bridge/mqtt";
constexpr char kBridgeInterface[] = "iot.bridge.mqtt";
constexpr char kEventMember[] = "subscribe_event";

class CBridgeService : public CMqttLink::IListener {
public:
    CBridgeService(CBusLink& bus, std::chrono::milliseconds ack_timeout, size_t max_subscriptions);
    // Set once both links exist: the MQTT link needs the service as its listener first.
    void attach(CMqttLink& mqtt) { m_mqtt = &mqtt; }

    // The bus link's handler: true for every method call it answered (all but the standard
    // interfaces libdbus answers itself).
    bool handle(DBusMessage* message);
    // Answers the calls whose acknowledgement is overdue; returns the time to the next deadline.
    CPendingCalls::Clock::duration expire(CPendingCalls::Clock::time_point now);
    // Answers every waiting call before the bridge goes away.
    void stop();

    void on_connected() override;
    void on_connection_lost() override;
    void on_subscribed(int mid, bool granted) override;
    void on_published(int mid) override;
    void on_message(const mosquitto_message& message) override;

private:
    void handle_subscribe(DBusMessage* call);
    void handle_publish(DBusMessage* call);
    // Answers with the JSON text for code, logging failures.
    void answer(DBusMessage* call, int code, const std::string& message = std::string());
    void fail_all(int code, const char* why);
    void forward(const char* topic, const std::string& payload);

    CBusLink& m_bus;
    CMqttLink* m_mqtt = nullptr;
    const std::chrono::milliseconds m_ack_timeout;
    CSubscriptionTable m_table;
    CPendingCalls m_pending;
    // Renewals of the table's filters on a new session: message id to filter.
    std::map<int, std::string> m_renewals;
    std::vector<std::string> m_targets;  // the subscribers of the message being forwarded
};

#endif
