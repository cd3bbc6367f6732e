#include "quorel/testsupport/mqtt_client.h"

#include <mosquitto.h>

#include <algorithm>

namespace Quorel {
namespace Iot {
namespace Testing {

namespace {

// libmosquitto wants one process-wide initialisation before its first client.
struct CLibraryInit {
    CLibraryInit() { mosquitto_lib_init(); }
};

}  // namespace

CMqttClient::CMqttClient() {
    static CLibraryInit init;
    m_mosq = mosquitto_new(nullptr, true, this);
    if (m_mosq == nullptr) return;
    mosquitto_connect_callback_set(m_mosq, on_connect);
    mosquitto_subscribe_callback_set(m_mosq, on_subscribe);
    mosquitto_publish_callback_set(m_mosq, on_publish);
    mosquitto_message_callback_set(m_mosq, on_message);
}

CMqttClient::~CMqttClient() {
    disconnect();
    if (m_mosq != nullptr) mosquitto_destroy(m_mosq);
}

bool CMqttClient::connect(const std::string& host, int port, std::chrono::milliseconds timeout) {
    if (m_mosq == nullptr) return false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_connect_rc = -1;
    }
    if (mosquitto_connect(m_mosq, host.c_str(), port, 30) != MOSQ_ERR_SUCCESS) return false;
    if (!m_loop_started && mosquitto_loop_start(m_mosq) != MOSQ_ERR_SUCCESS) return false;
    m_loop_started = true;
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return m_connect_rc != -1; }) && m_connect_rc == 0;
}

void CMqttClient::disconnect() {
    if (m_mosq == nullptr || !m_loop_started) return;
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, true);
    m_loop_started = false;
}

bool CMqttClient::wait_for_mid(std::vector<int>& done, int mid, std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] { return std::find(done.begin(), done.end(), mid) != done.end(); });
}

bool CMqttClient::subscribe(const std::string& topic, int qos, std::chrono::milliseconds timeout) {
    int mid = 0;
    if (m_mosq == nullptr || mosquitto_subscribe(m_mosq, &mid, topic.c_str(), qos) != MOSQ_ERR_SUCCESS) return false;
    return wait_for_mid(m_subscribed, mid, timeout);
}

bool CMqttClient::publish(const std::string& topic, const std::string& payload, int qos,
                          std::chrono::milliseconds timeout) {
    int mid = 0;
    if (m_mosq == nullptr || mosquitto_publish(m_mosq, &mid, topic.c_str(), static_cast<int>(payload.size()),
                                               payload.data(), qos, false) != MOSQ_ERR_SUCCESS) {
        return false;
    }
    return qos == 0 || wait_for_mid(m_published, mid, timeout);
}

std::vector<CMqttMessage> CMqttClient::messages() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

std::vector<CMqttMessage> CMqttClient::messages(const std::string& topic) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<CMqttMessage> result;
    for (const CMqttMessage& m : m_messages)
        if (m.topic == topic) result.push_back(m);
    return result;
}

bool CMqttClient::wait_for_count(const std::string& topic, size_t n, std::chrono::milliseconds timeout) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, timeout, [&] {
        return static_cast<size_t>(std::count_if(m_messages.begin(), m_messages.end(),
                                                 [&](const CMqttMessage& m) { return m.topic == topic; })) >= n;
    });
}

void CMqttClient::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_messages.clear();
}

void CMqttClient::on_connect(mosquitto*, void* self, int rc) {
    CMqttClient* client = static_cast<CMqttClient*>(self);
    {
        std::lock_guard<std::mutex> lock(client->m_mutex);
        client->m_connect_rc = rc;
    }
    client->m_changed.notify_all();
}

void CMqttClient::on_subscribe(mosquitto*, void* self, int mid, int, const int*) {
    CMqttClient* client = static_cast<CMqttClient*>(self);
    {
        std::lock_guard<std::mutex> lock(client->m_mutex);
        client->m_subscribed.push_back(mid);
    }
    client->m_changed.notify_all();
}

void CMqttClient::on_publish(mosquitto*, void* self, int mid) {
    CMqttClient* client = static_cast<CMqttClient*>(self);
    {
        std::lock_guard<std::mutex> lock(client->m_mutex);
        client->m_published.push_back(mid);
    }
    client->m_changed.notify_all();
}

void CMqttClient::on_message(mosquitto*, void* self, const mosquitto_message* message) {
    CMqttClient* client = static_cast<CMqttClient*>(self);
    CMqttMessage m;
    m.arrived = std::chrono::steady_clock::now();
    m.topic = message->topic;
    m.payload.assign(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
    {
        std::lock_guard<std::mutex> lock(client->m_mutex);
        client->m_messages.push_back(std::move(m));
    }
    client->m_changed.notify_all();
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
