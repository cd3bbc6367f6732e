// mqtt-bridge-bench: how much time the bridge adds between the broker and the bus, and how many
// messages a second it forwards without losing any. It starts a private bus, a private mosquitto
// and the bridge itself, then publishes over MQTT and times each message twice: at a plain MQTT
// subscriber and at a bus subscriber (named as the adapter, no match rules). Not a test: run it
// by hand on an otherwise idle machine.
//
//   mqtt-bridge-bench [--bridge PATH] [--latency-messages N] [--rate R] [--seconds S]
//
// Prints the figures and one PASS or MISS line per target; exits 0 when every target is met.
#include <dbus/dbus.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "quorel/testsupport/bus_client.h"
#include "quorel/testsupport/child_process.h"
#include "quorel/testsupport/fake_service.h"
#include "quorel/testsupport/mosquitto_broker.h"
#include "quorel/testsupport/mqtt_client.h"
#include "quorel/testsupport/private_bus.h"
#include "quorel/testsupport/wait.h"

using namespace Quorel::Iot::Testing;
using Clock = std::chrono::steady_clock;

namespace {

constexpr char kSubscriber[] = "iot.dmp.config.adapter";

// The bus side: its own connection and thread, stamping each subscribe_event as it is read.
class CBusSubscriber {
public:
    explicit CBusSubscriber(const std::string& address) : m_address(address) {}
    ~CBusSubscriber() { stop(); }

    bool start() {
        DBusError error;
        dbus_error_init(&error);
        m_connection = dbus_connection_open_private(m_address.c_str(), &error);
        if (m_connection == nullptr || !dbus_bus_register(m_connection, &error) ||
            dbus_bus_request_name(m_connection, kSubscriber, DBUS_NAME_FLAG_DO_NOT_QUEUE, &error) !=
                DBUS_REQUEST_NAME_REPLY_PRIMARY_OWNER) {
            fprintf(stderr, "bus subscriber: %s\n", dbus_error_is_set(&error) ? error.message : "name taken");
            dbus_error_free(&error);
            return false;
        }
        m_running = true;
        m_thread = std::thread([this] { loop(); });
        return true;
    }

    void stop() {
        m_running = false;
        if (m_thread.joinable()) m_thread.join();
        if (m_connection != nullptr) {
            dbus_connection_close(m_connection);
            dbus_connection_unref(m_connection);
            m_connection = nullptr;
        }
    }

    // Arrival time of each payload received on topic.
    std::map<std::string, Clock::time_point> arrivals(const std::string& topic) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_arrivals.find(topic);
        return it != m_arrivals.end() ? it->second : std::map<std::string, Clock::time_point>();
    }
    size_t count(const std::string& topic) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_arrivals.find(topic);
        return it != m_arrivals.end() ? it->second.size() : 0;
    }

private:
    void loop() {
        while (m_running) {
            if (!dbus_connection_read_write(m_connection, 50)) break;
            while (DBusMessage* message = dbus_connection_pop_message(m_connection)) {
                const Clock::time_point now = Clock::now();
                const char* topic = nullptr;
                const char* payload = nullptr;
                if (dbus_message_is_signal(message, "iot.bridge.mqtt", "subscribe_event") &&
                    dbus_message_get_args(message, nullptr, DBUS_TYPE_STRING, &topic, DBUS_TYPE_STRING, &payload,
                                          DBUS_TYPE_INVALID)) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_arrivals[topic].emplace(payload, now);
                }
                dbus_message_unref(message);
            }
        }
    }

    std::string m_address;
    DBusConnection* m_connection = nullptr;
    std::atomic<bool> m_running{false};
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::map<std::string, std::map<std::string, Clock::time_point>> m_arrivals;
};

// The MQTT side: a plain subscriber on libmosquitto's own thread, stamping each message as it is
// read. Like the bridge it acknowledges TCP segments at once: with mosquitto's default Nagle, a
// subscriber whose kernel delays ACKs gets messages in batches up to ~40 ms late, which would make
// the bridge look faster than it is.
class CDirectSubscriber {
public:
    CDirectSubscriber() {
        mosquitto_lib_init();
        m_mosq = mosquitto_new(nullptr, true, this);
        if (m_mosq == nullptr) return;
        mosquitto_connect_callback_set(
            m_mosq, [](mosquitto*, void* self, int rc) { static_cast<CDirectSubscriber*>(self)->m_connect_rc = rc; });
        mosquitto_subscribe_callback_set(m_mosq, [](mosquitto* mosq, void* self, int, int, const int*) {
            static_cast<CDirectSubscriber*>(self)->m_subscribed = true;
            acknowledge_promptly(mosq);
        });
        mosquitto_message_callback_set(m_mosq, on_message);
    }
    ~CDirectSubscriber() {
        if (m_mosq == nullptr) return;
        mosquitto_disconnect(m_mosq);
        mosquitto_loop_stop(m_mosq, true);
        mosquitto_destroy(m_mosq);
    }

    bool start(const std::string& host, int port, const std::string& filter) {
        if (m_mosq == nullptr || mosquitto_connect(m_mosq, host.c_str(), port, 30) != MOSQ_ERR_SUCCESS ||
            mosquitto_loop_start(m_mosq) != MOSQ_ERR_SUCCESS || !wait_until([&] { return m_connect_rc.load() == 0; }) ||
            mosquitto_subscribe(m_mosq, nullptr, filter.c_str(), 1) != MOSQ_ERR_SUCCESS) {
            return false;
        }
        return wait_until([&] { return m_subscribed.load(); });
    }

    std::map<std::string, Clock::time_point> arrivals(const std::string& topic) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        const auto it = m_arrivals.find(topic);
        return it != m_arrivals.end() ? it->second : std::map<std::string, Clock::time_point>();
    }
    size_t count(const std::string& topic) const { return arrivals(topic).size(); }

private:
    static void on_message(mosquitto* mosq, void* self, const mosquitto_message* message) {
        const Clock::time_point now = Clock::now();
        CDirectSubscriber* subscriber = static_cast<CDirectSubscriber*>(self);
        {
            std::lock_guard<std::mutex> lock(subscriber->m_mutex);
            subscriber->m_arrivals[message->topic].emplace(
                std::string(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen)), now);
        }
        acknowledge_promptly(mosq);
    }

    // Re-armed after every packet read: the kernel clears the flag by itself.
    static void acknowledge_promptly(mosquitto* mosq) {
        const int on = 1;
        setsockopt(mosquitto_socket(mosq), IPPROTO_TCP, TCP_QUICKACK, &on, sizeof(on));
    }

    mosquitto* m_mosq = nullptr;
    std::atomic<int> m_connect_rc{-1};
    std::atomic<bool> m_subscribed{false};
    mutable std::mutex m_mutex;
    std::map<std::string, std::map<std::string, Clock::time_point>> m_arrivals;
};

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t index = std::min(values.size() - 1, static_cast<size_t>(p * static_cast<double>(values.size())));
    return values[index];
}

// The machine's load averages: on a shared machine with more runnable tasks than cores, each of the
// bus path's extra hops (bridge, bus daemon, subscriber) may wait a scheduler slice, and the figures
// then show the machine rather than the bridge.
std::string load_average() {
    std::ifstream in("/proc/loadavg");
    std::string one, five, fifteen;
    in >> one >> five >> fifteen;
    return one + " " + five + " " + fifteen;
}

// CPU seconds (user + system) the process has used so far.
double cpu_seconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos) return 0;
    std::vector<std::string> fields;
    size_t at = close + 2;
    while (at < text.size()) {
        const size_t space = text.find(' ', at);
        fields.push_back(text.substr(at, space - at));
        if (space == std::string::npos) break;
        at = space + 1;
    }
    // Fields after the command: state is [0], utime [11], stime [12].
    if (fields.size() < 13) return 0;
    return (atof(fields[11].c_str()) + atof(fields[12].c_str())) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// Publishes count messages on topic at rate a second (paced in 1 ms slots); returns the time
// the first went out.
Clock::time_point publish_paced(CMqttClient& publisher, const std::string& topic, int count, int rate) {
    const Clock::time_point start = Clock::now();
    for (int i = 0; i < count; ++i) {
        const Clock::time_point due = start + std::chrono::microseconds(static_cast<long long>(i) * 1000000 / rate);
        if (Clock::now() < due) std::this_thread::sleep_until(due);
        publisher.publish(topic, std::to_string(i), 0);
    }
    return start;
}

struct CArguments {
    std::string bridge = BRIDGE_BINARY;
    int latency_messages = 2000;
    // Above the 5000 a second to be shown, so that the figure is the bridge's and not the pace's.
    int rate = 6000;
    int seconds = 5;
};

bool parse(int argc, char** argv, CArguments& arguments) {
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i];
        const std::string value = argv[i + 1];
        if (name == "--bridge") {
            arguments.bridge = value;
        } else if (name == "--latency-messages") {
            arguments.latency_messages = atoi(value.c_str());
        } else if (name == "--rate") {
            arguments.rate = atoi(value.c_str());
        } else if (name == "--seconds") {
            arguments.seconds = atoi(value.c_str());
        } else {
            return false;
        }
    }
    return argc % 2 == 1 && arguments.latency_messages > 0 && arguments.rate > 0 && arguments.seconds > 0;
}

}  // namespace

int main(int argc, char** argv) {
    CArguments arguments;
    if (!parse(argc, argv, arguments)) {
        fprintf(stderr, "usage: %s [--bridge PATH] [--latency-messages N] [--rate R] [--seconds S]\n", argv[0]);
        return 2;
    }
    dbus_threads_init_default();
    CPrivateBus bus;
    CMosquittoBroker broker;
    if (!bus.start() || !broker.start()) {
        fprintf(stderr, "cannot start the private bus or broker\n");
        return 1;
    }
    CChildProcess bridge;
    if (!bridge.start({arguments.bridge, "--host", "127.0.0.1", "--port", std::to_string(broker.port()), "--address",
                       bus.address()})) {
        fprintf(stderr, "cannot start %s: %s\n", arguments.bridge.c_str(), bridge.error().c_str());
        return 1;
    }
    CBusClient client(bus.address());
    CBusSubscriber subscriber(bus.address());
    CDirectSubscriber direct;
    CMqttClient publisher;
    if (!client.connect() || !subscriber.start() || !direct.start(broker.host(), broker.port(), "bench/#") ||
        !publisher.connect(broker.host(), broker.port())) {
        fprintf(stderr, "cannot set up the clients\n");
        return 1;
    }
    const bool subscribed = wait_until(
        [&] {
            CCallBuilder call("iot.bridge.mqtt", "/iot/bridge/mqtt", "iot.bridge.mqtt", "subscribe");
            call.str("bench/#").str(kSubscriber).i32(0);
            const CRecordedMessage reply = client.call(call, 1000);
            return !reply.args.empty() && reply.args[0] == "{\"code\":0}";
        },
        std::chrono::seconds(10));
    if (!subscribed) {
        fprintf(stderr, "the bridge did not subscribe:\n%s\n", bridge.err().c_str());
        return 1;
    }

    printf("load average at start: %s (%ld cores)\n", load_average().c_str(), sysconf(_SC_NPROCESSORS_ONLN));
    bool all_met = true;
    // Latency: one message a millisecond, so that none waits behind another.
    {
        const std::string topic = "bench/latency";
        publish_paced(publisher, topic, arguments.latency_messages, 1000);
        const size_t n = static_cast<size_t>(arguments.latency_messages);
        wait_until([&] { return subscriber.count(topic) >= n; }, std::chrono::seconds(10));
        wait_until([&] { return direct.count(topic) >= n; }, std::chrono::seconds(1));
        const auto on_bus = subscriber.arrivals(topic);
        std::vector<double> added;
        for (const auto& entry : direct.arrivals(topic)) {
            const auto it = on_bus.find(entry.first);
            if (it != on_bus.end()) added.push_back(ms(it->second - entry.second));
        }
        const double median = percentile(added, 0.5);
        const double p99 = percentile(added, 0.99);
        printf(
            "latency: %zu messages, 1 per ms; bus arrival minus MQTT arrival: median %.3f ms, p99 %.3f ms, "
            "max %.3f ms, min %.3f ms (%zu matched)\n",
            n, median, p99, percentile(added, 1.0), percentile(added, 0.0), added.size());
        const bool met = added.size() == n && median < 1.0;
        all_met = all_met && met;
        printf("%s latency: median %.3f ms added by the bridge (target < 1 ms)\n", met ? "PASS" : "MISS", median);
    }
    // Throughput: a steady rate for a few seconds, every message counted at the bus.
    {
        const std::string topic = "bench/throughput";
        const int count = arguments.rate * arguments.seconds;
        const double cpu_before = cpu_seconds(bridge.pid());
        const Clock::time_point start = publish_paced(publisher, topic, count, arguments.rate);
        wait_until([&] { return subscriber.count(topic) >= static_cast<size_t>(count); }, std::chrono::seconds(10));
        const auto on_bus = subscriber.arrivals(topic);
        Clock::time_point last = start;
        for (const auto& entry : on_bus) last = std::max(last, entry.second);
        const double cpu = cpu_seconds(bridge.pid()) - cpu_before;
        const double seconds = std::chrono::duration<double>(last - start).count();
        const double rate = seconds > 0 ? static_cast<double>(on_bus.size()) / seconds : 0;
        printf(
            "throughput: %d published at %d/s; %zu on the bus, %zu at the MQTT subscriber; %.0f msg/s over "
            "%.2f s; bridge CPU %.2f s (%.1f us a message)\n",
            count, arguments.rate, on_bus.size(), direct.count(topic), rate, seconds, cpu,
            on_bus.empty() ? 0.0 : cpu * 1e6 / static_cast<double>(on_bus.size()));
        const bool met = on_bus.size() == static_cast<size_t>(count) && rate >= 5000;
        all_met = all_met && met;
        printf("%s throughput: %zu of %d delivered at %.0f msg/s (target >= 5000 msg/s, no loss)\n",
               met ? "PASS" : "MISS", on_bus.size(), count, rate);
    }
    printf("load average at end: %s\n", load_average().c_str());
    subscriber.stop();
    return all_met ? 0 : 1;
}
