#include "cloud_link.h"

#include <mosquitto.h>
#include <stdio.h>

#include <fstream>
#include <sstream>

namespace ShadowCloud {

namespace {

// A document as one line: compact JSON when it parses, the text itself otherwise.
std::string one_line(const std::string& payload) {
    Json::Value document;
    if (CShadowBook::parse(payload, document)) return CShadowBook::compact(document);
    std::string text = payload.size() > 200 ? payload.substr(0, 200) + "..." : payload;
    for (char& c : text)
        if (static_cast<unsigned char>(c) < 0x20) c = ' ';
    return text + " (not JSON)";
}

std::string answer(int code, const std::string& message, const Json::Value& shadow = Json::Value()) {
    Json::Value document(Json::objectValue);
    document["code"] = code;
    if (!message.empty()) document["message"] = message;
    if (!shadow.isNull()) document["shadow"] = shadow;
    return CShadowBook::compact(document);
}

}  // namespace

CCloudLink::CCloudLink(const std::string& host, int port, const std::string& state_path)
    : m_host(host), m_port(port), m_state_path(state_path) {}

CCloudLink::~CCloudLink() {
    stop();
    if (m_mosq != nullptr) mosquitto_destroy(m_mosq);
}

bool CCloudLink::start(std::string& reason) {
    if (!m_state_path.empty()) {
        std::ifstream in(m_state_path);
        if (in) {
            std::stringstream text;
            text << in.rdbuf();
            if (!m_book.load(text.str(), reason)) {
                reason = m_state_path + ": " + reason;
                return false;
            }
        }
    }
    m_mosq = mosquitto_new(nullptr, true, this);
    if (m_mosq == nullptr) {
        reason = "cannot create an MQTT client";
        return false;
    }
    mosquitto_connect_callback_set(m_mosq, on_connect);
    mosquitto_disconnect_callback_set(m_mosq, on_disconnect);
    mosquitto_message_callback_set(m_mosq, on_message);
    mosquitto_reconnect_delay_set(m_mosq, 1, 2, false);
    // A broker that is not there yet is no reason to stop: the network thread keeps trying.
    const int rc = mosquitto_connect_async(m_mosq, m_host.c_str(), m_port, 10);
    if (rc != MOSQ_ERR_SUCCESS) {
        print_line("broker " + m_host + ":" + std::to_string(m_port) + " not reachable yet (" + mosquitto_strerror(rc) +
                   "); retrying");
    }
    if (mosquitto_loop_start(m_mosq) != MOSQ_ERR_SUCCESS) {
        reason = "cannot start the MQTT network thread";
        return false;
    }
    m_loop_started = true;
    return true;
}

void CCloudLink::stop() {
    if (!m_loop_started) return;
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, true);
    m_loop_started = false;
}

void CCloudLink::on_connect(mosquitto* mosq, void* self, int rc) {
    CCloudLink* link = static_cast<CCloudLink*>(self);
    if (rc != 0) {
        print_line(std::string("broker refused the connection: ") + mosquitto_connack_string(rc));
        return;
    }
    // A restarted broker has forgotten every subscription.
    mosquitto_subscribe(mosq, nullptr, (std::string(kUpdatePrefix) + "#").c_str(), 1);
    mosquitto_subscribe(mosq, nullptr, kRequestTopic, 1);
    print_line("connected to " + link->m_host + ":" + std::to_string(link->m_port) + ", listening on " + kUpdatePrefix +
               "#");
}

void CCloudLink::on_disconnect(mosquitto*, void*, int rc) {
    if (rc != 0) print_line("lost the broker; reconnecting");
}

void CCloudLink::on_message(mosquitto*, void* self, const mosquitto_message* message) {
    CCloudLink* link = static_cast<CCloudLink*>(self);
    const std::string topic = message->topic;
    const std::string payload(static_cast<const char*>(message->payload), static_cast<size_t>(message->payloadlen));
    if (topic == kRequestTopic) {
        link->handle_request(payload);
        return;
    }
    print_line("<- " + topic + " " + one_line(payload));
    const CHandled handled = link->m_book.handle_update(topic, payload);
    if (!handled.note.empty()) print_line("   ignored: " + handled.note);
    for (const COutgoing& outgoing : handled.outgoing) link->publish(outgoing);
    if (handled.method == "update" && handled.note.empty()) {
        print_line("   shadow of " + handled.device + " now " +
                   CShadowBook::compact(link->m_book.show(handled.device)));
        link->save_state();
    }
}

void CCloudLink::handle_request(const std::string& payload) {
    Json::Value request;
    if (!CShadowBook::parse(payload, request) || !request.isObject() || !request["answer_to"].isString()) return;
    const std::string answer_to = request["answer_to"].asString();
    if (answer_to.compare(0, sizeof(kAnswerPrefix) - 1, kAnswerPrefix) != 0) return;
    // Anyone on the broker may publish here: a member of another type must not reach a conversion
    // that throws on the network thread.
    const std::string command = request["command"].isString() ? request["command"].asString() : "";
    const std::string device = request["device"].isString() ? request["device"].asString() : "";
    std::string reason;
    std::string text;
    if (command == "desire") {
        COutgoing control;
        if (m_book.desire(device, request["values"], control, reason)) {
            print_line("== desire " + device + " " + CShadowBook::compact(request["values"]));
            publish(control);
            save_state();
            text = answer(0, "", m_book.show(device));
        } else {
            text = answer(1, reason);
        }
    } else if (command == "report") {
        if (m_book.report(device, request["values"], reason)) {
            print_line("== report " + device + " " + CShadowBook::compact(request["values"]));
            save_state();
            text = answer(0, "", m_book.show(device));
        } else {
            text = answer(1, reason);
        }
    } else if (command == "show") {
        if (device.empty()) {
            text = answer(0, "", m_book.show_all());
        } else if (m_book.has(device)) {
            text = answer(0, "", m_book.show(device));
        } else {
            text = answer(1, "no shadow for " + device);
        }
    } else {
        text = answer(1, "unknown command");
    }
    mosquitto_publish(m_mosq, nullptr, answer_to.c_str(), static_cast<int>(text.size()), text.data(), 1, false);
}

void CCloudLink::publish(const COutgoing& outgoing) {
    const int rc = mosquitto_publish(m_mosq, nullptr, outgoing.topic.c_str(), static_cast<int>(outgoing.payload.size()),
                                     outgoing.payload.data(), 1, false);
    print_line("-> " + outgoing.topic + " " + one_line(outgoing.payload) +
               (rc == MOSQ_ERR_SUCCESS ? "" : std::string(" (not sent: ") + mosquitto_strerror(rc) + ")"));
}

void CCloudLink::save_state() {
    if (m_state_path.empty()) return;
    // Written aside and renamed, so a crash leaves the old book or the new one, never half of one.
    const std::string temporary = m_state_path + ".new";
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << m_book.save();
        if (!out) {
            print_line("cannot write " + temporary);
            return;
        }
    }
    if (rename(temporary.c_str(), m_state_path.c_str()) != 0) print_line("cannot replace " + m_state_path);
}

}  // namespace ShadowCloud
