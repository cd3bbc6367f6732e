#include "command_client.h"

#include <mosquitto.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>

#include "cloud_link.h"
#include "shadow_book.h"

namespace ShadowCloud {

namespace {

// What the network thread hands to the waiting command.
struct CExchange {
    std::mutex mutex;
    std::condition_variable changed;
    std::string answer_topic;
    std::string request;
    bool subscribed = false;
    bool answered = false;
    int connect_rc = -1;
    std::string answer;
};

void on_connect(mosquitto* mosq, void* data, int rc) {
    CExchange* exchange = static_cast<CExchange*>(data);
    std::lock_guard<std::mutex> lock(exchange->mutex);
    exchange->connect_rc = rc;
    if (rc == 0) mosquitto_subscribe(mosq, nullptr, exchange->answer_topic.c_str(), 1);
    exchange->changed.notify_all();
}

// The request goes out only once the answer topic is subscribed, or the answer could be missed.
void on_subscribe(mosquitto* mosq, void* data, int, int, const int*) {
    CExchange* exchange = static_cast<CExchange*>(data);
    std::lock_guard<std::mutex> lock(exchange->mutex);
    exchange->subscribed = true;
    mosquitto_publish(mosq, nullptr, kRequestTopic, static_cast<int>(exchange->request.size()),
                      exchange->request.data(), 1, false);
}

void on_message(mosquitto*, void* data, const mosquitto_message* message) {
    CExchange* exchange = static_cast<CExchange*>(data);
    std::lock_guard<std::mutex> lock(exchange->mutex);
    if (exchange->answered || exchange->answer_topic != message->topic) return;
    exchange->answer.assign(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
    exchange->answered = true;
    exchange->changed.notify_all();
}

}  // namespace

int run_command(const std::string& host, int port, const std::string& command, const std::string& device,
                const Json::Value& values, int timeout_ms, Json::Value& answer, std::string& reason) {
    CExchange exchange;
    exchange.answer_topic = kAnswerPrefix + std::to_string(getpid()) + "-" +
                            std::to_string(std::chrono::steady_clock::now().time_since_epoch().count());
    Json::Value request(Json::objectValue);
    request["command"] = command;
    request["device"] = device;
    request["values"] = values;
    request["answer_to"] = exchange.answer_topic;
    exchange.request = CShadowBook::compact(request);

    mosquitto* mosq = mosquitto_new(nullptr, true, &exchange);
    if (mosq == nullptr) {
        reason = "cannot create an MQTT client";
        return -1;
    }
    mosquitto_connect_callback_set(mosq, on_connect);
    mosquitto_subscribe_callback_set(mosq, on_subscribe);
    mosquitto_message_callback_set(mosq, on_message);
    int rc = mosquitto_connect(mosq, host.c_str(), port, 10);
    if (rc != MOSQ_ERR_SUCCESS) {
        reason = "cannot reach the broker at " + host + ":" + std::to_string(port) + ": " + mosquitto_strerror(rc);
        mosquitto_destroy(mosq);
        return -1;
    }
    mosquitto_loop_start(mosq);
    bool answered = false;
    {
        std::unique_lock<std::mutex> lock(exchange.mutex);
        answered = exchange.changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
            return exchange.answered || exchange.connect_rc > 0;
        }) && exchange.answered;
    }
    mosquitto_disconnect(mosq);
    mosquitto_loop_stop(mosq, true);
    mosquitto_destroy(mosq);
    if (!answered) {
        reason = "no shadow-cloud simulator answered through the broker at " + host + ":" + std::to_string(port);
        return -1;
    }
    if (!CShadowBook::parse(exchange.answer, answer) || !answer.isObject() || !answer["code"].isInt()) {
        reason = "the simulator's answer is not understood";
        return -1;
    }
    return answer["code"].asInt();
}

}  // namespace ShadowCloud
