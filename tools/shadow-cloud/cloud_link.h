// CCloudLink: the simulator's side of the broker. It listens on every device's update topic and on
// the simulator's request topic, lets a CShadowBook answer, publishes what the book produces and
// prints one line for every document it receives or sends. libmosquitto's network thread does all
// of it, so the book needs no lock; it reconnects, and subscribes again, when the broker restarts.
#ifndef SHADOW_CLOUD_CLOUD_LINK_H
#define SHADOW_CLOUD_CLOUD_LINK_H

#include <string>

#include "quorel/tools/timestamped_line.h"
#include "shadow_book.h"

struct mosquitto;
struct mosquitto_message;

namespace ShadowCloud {

// Where the command-line client sends its requests; answers go to the topic the request names.
constexpr const char kRequestTopic[] = "/shadow-cloud/request";
constexpr const char kAnswerPrefix[] = "/shadow-cloud/answer/";

class CCloudLink {
public:
    // state_path: where the book is kept across restarts ("" keeps it in memory only).
    CCloudLink(const std::string& host, int port, const std::string& state_path);
    ~CCloudLink();
    CCloudLink(const CCloudLink&) = delete;
    CCloudLink& operator=(const CCloudLink&) = delete;

    // Loads the state file (a missing one is an empty book) and starts the network thread, which
    // keeps trying the broker until it answers. False with a reason when it cannot begin at all.
    bool start(std::string& reason);
    void stop();

private:
    static void on_connect(mosquitto*, void* self, int rc);
    static void on_disconnect(mosquitto*, void* self, int rc);
    static void on_message(mosquitto*, void* self, const mosquitto_message* message);

    void handle_request(const std::string& payload);
    void publish(const COutgoing& outgoing);
    void save_state();

    std::string m_host;
    int m_port;
    std::string m_state_path;
    CShadowBook m_book;
    mosquitto* m_mosq = nullptr;
    bool m_loop_started = false;
};

using Quorel::Iot::Tools::print_line;

}  // namespace ShadowCloud

#endif
