// CMosquittoBroker: a real mosquitto on 127.0.0.1, on a free port of its own, started for one test
// with its configuration in a temporary folder and nothing persisted. stop() and start() again
// bring it back on the same port, as a broker restart looks to its clients.
#ifndef QUOREL_TESTSUPPORT_MOSQUITTO_BROKER_H
#define QUOREL_TESTSUPPORT_MOSQUITTO_BROKER_H

#include <memory>
#include <string>

#include "quorel/testsupport/child_process.h"

namespace Quorel {
namespace Iot {
namespace Testing {

class CMosquittoBroker {
public:
    CMosquittoBroker();
    ~CMosquittoBroker();
    CMosquittoBroker(const CMosquittoBroker&) = delete;
    CMosquittoBroker& operator=(const CMosquittoBroker&) = delete;

    // Starts the broker and waits until it accepts connections. The first start picks a free
    // port; later starts reuse it. False when it did not come up within 10 s.
    bool start();
    // SIGTERM, then SIGKILL after 5 s; reaped.
    void stop();
    bool running();

    const std::string& host() const { return m_host; }
    int port() const { return m_port; }
    // What the broker has logged on standard error (connections, subscriptions, errors).
    std::string log() const;

    // A port nobody listens on at the moment of the call.
    static int free_port();

private:
    bool write_config() const;
    bool accepts_connections() const;

    std::string m_dir;
    std::string m_host = "127.0.0.1";
    int m_port = 0;
    std::unique_ptr<CChildProcess> m_process;
    std::string m_past_log;  // the log of earlier lives
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
