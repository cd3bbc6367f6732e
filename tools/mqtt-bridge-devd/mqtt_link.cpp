#include "mqtt_link.h"

#include <errno.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

#include "quorel/log/log.h"

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/tools/mqtt-bridge-devd/mqtt_link";

// A dead broker behind a live TCP connection is noticed within 1.5 keepalives.
constexpr int kKeepaliveSeconds = 10;
constexpr std::chrono::milliseconds kFirstBackoff(50);
// The adapter retries a refused subscribe every 15 s; a local broker back from a restart should be
// usable well before that.
constexpr std::chrono::milliseconds kLongestBackoff(1000);
// libmosquitto's keepalive bookkeeping wants a call at least this often.
constexpr std::chrono::milliseconds kHousekeeping(1000);

std::string describe(int rc) {
    return rc == MOSQ_ERR_ERRNO ? std::string(strerror(errno)) : std::string(mosquitto_strerror(rc));
}

}  // namespace

CMqttLink::CMqttLink(const std::string& host, int port, IListener& listener)
    : m_host(host), m_port(port), m_listener(listener), m_backoff(kFirstBackoff) {}

CMqttLink::~CMqttLink() {
    if (m_mosq != nullptr) mosquitto_destroy(m_mosq);
}

bool CMqttLink::init() {
    // Two bridges with one client id would throw each other off the broker in turn.
    const std::string client_id = "bridge-devd-" + std::to_string(getpid());
    m_mosq = mosquitto_new(client_id.c_str(), true, this);
    if (m_mosq == nullptr) {
        QLOG(3, "init, libmosquitto cannot make a client: %s", strerror(errno));
        return false;
    }
    // Acknowledgements and publications are single small packets: Nagle would only delay them.
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(m_mosq, on_connect);
    mosquitto_disconnect_callback_set(m_mosq, on_disconnect);
    mosquitto_subscribe_callback_set(m_mosq, on_subscribe);
    mosquitto_publish_callback_set(m_mosq, on_publish);
    mosquitto_message_callback_set(m_mosq, on_message_arrived);
    m_next_attempt = Clock::now();
    return true;
}

pollfd CMqttLink::poll_entry(bool reading) const {
    pollfd entry{};
    entry.fd = mosquitto_socket(m_mosq);
    if (entry.fd < 0) return entry;
    if (reading) entry.events |= POLLIN;
    if (mosquitto_want_write(m_mosq)) entry.events |= POLLOUT;
    return entry;
}

void CMqttLink::handle(short revents) {
    // libmosquitto reads one packet per call: the socket stays readable for the next poll, which
    // lets the bus have its turn between messages.
    if ((revents & (POLLIN | POLLERR | POLLHUP)) != 0) {
        check(mosquitto_loop_read(m_mosq, 1), "reading");
        acknowledge_promptly();
    }
    if ((revents & POLLOUT) != 0 && mosquitto_socket(m_mosq) >= 0) check(mosquitto_loop_write(m_mosq, 1), "writing");
}

void CMqttLink::acknowledge_promptly() {
    // mosquitto leaves Nagle on by default (set_tcp_nodelay false): once our kernel delays an ACK,
    // the broker holds every further small PUBLISH to us until the delayed-ACK timer fires, and
    // messages reach the bus in batches, tens of milliseconds late. The kernel clears
    // TCP_QUICKACK by itself, so it is set again after every read.
    const int fd = mosquitto_socket(m_mosq);
    const int on = 1;
    if (fd >= 0) setsockopt(fd, IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
}

CMqttLink::Clock::duration CMqttLink::service(Clock::time_point now) {
    if (m_state == State::Waiting) {
        if (now < m_next_attempt) return m_next_attempt - now;
        attempt_connection();
        if (m_state == State::Waiting) return m_next_attempt - now;
    }
    if (mosquitto_socket(m_mosq) >= 0) check(mosquitto_loop_misc(m_mosq), "keeping the session alive");
    return kHousekeeping;
}

void CMqttLink::attempt_connection() {
    QLOG(0, "attempt_connection, to %s:%d", m_host.c_str(), m_port);
    const int rc = mosquitto_connect_async(m_mosq, m_host.c_str(), m_port, kKeepaliveSeconds);
    if (rc == MOSQ_ERR_SUCCESS) {
        m_state = State::Connecting;
        return;
    }
    const std::string why = describe(rc);
    lost(why.c_str());
}

void CMqttLink::lost(const char* why) {
    const State was = m_state;
    m_state = State::Waiting;
    m_next_attempt = Clock::now() + m_backoff;
    m_backoff = std::min<Clock::duration>(m_backoff * 2, kLongestBackoff);
    if (was == State::Connected) {
        QLOG(2, "lost, lost the broker %s:%d (%s); reconnecting", m_host.c_str(), m_port, why);
        m_reported_unreachable = false;
        m_listener.on_connection_lost();
    } else if (!m_reported_unreachable) {
        QLOG(2, "lost, broker %s:%d unreachable (%s); retrying", m_host.c_str(), m_port, why);
        m_reported_unreachable = true;
    }
}

void CMqttLink::check(int rc, const char* what) {
    if (rc == MOSQ_ERR_SUCCESS || m_state == State::Waiting) return;
    const std::string why = std::string(what) + ": " + describe(rc);
    lost(why.c_str());
}

int CMqttLink::subscribe(const std::string& filter, int& mid) {
    return mosquitto_subscribe(m_mosq, &mid, filter.c_str(), 1);
}

int CMqttLink::publish(const std::string& topic, const std::string& payload, int& mid) {
    return mosquitto_publish(m_mosq, &mid, topic.c_str(), static_cast<int>(payload.size()), payload.data(), 1, false);
}

void CMqttLink::disconnect() {
    if (m_state != State::Connected) return;
    m_state = State::Waiting;
    m_next_attempt = Clock::time_point::max();
    mosquitto_disconnect(m_mosq);
}

void CMqttLink::on_connect(mosquitto*, void* self, int rc) {
    CMqttLink* link = static_cast<CMqttLink*>(self);
    if (rc != 0) {
        // libmosquitto closes the socket next, and on_disconnect schedules the retry.
        QLOG(2, "on_connect, broker %s:%d refused the connection: %s", link->m_host.c_str(), link->m_port,
             mosquitto_connack_string(rc));
        return;
    }
    link->m_state = State::Connected;
    link->m_backoff = kFirstBackoff;
    link->m_reported_unreachable = false;
    QLOG(1, "on_connect, connected to the broker %s:%d", link->m_host.c_str(), link->m_port);
    link->m_listener.on_connected();
}

void CMqttLink::on_disconnect(mosquitto*, void* self, int rc) {
    CMqttLink* link = static_cast<CMqttLink*>(self);
    if (link->m_state == State::Waiting) return;
    const std::string why = describe(rc);
    link->lost(why.c_str());
}

void CMqttLink::on_subscribe(mosquitto*, void* self, int mid, int count, const int* granted) {
    // 0x80 is MQTT 3.1.1's refusal; anything above 2 is no QoS a broker may grant.
    const bool ok = count >= 1 && granted[0] >= 0 && granted[0] <= 2;
    static_cast<CMqttLink*>(self)->m_listener.on_subscribed(mid, ok);
}

void CMqttLink::on_publish(mosquitto*, void* self, int mid) {
    static_cast<CMqttLink*>(self)->m_listener.on_published(mid);
}

void CMqttLink::on_message_arrived(mosquitto*, void* self, const mosquitto_message* message) {
    static_cast<CMqttLink*>(self)->m_listener.on_message(*message);
}
