// CFakeBridge: the gateway's MQTT bridge "iot.bridge.mqtt" (object path "/iot/bridge/mqtt",
// interface "iot.bridge.mqtt") played by a real bus service. It answers "subscribe" with a chosen
// JSON text, records and answers "publish", and plays the cloud by sending "subscribe_event"
// signals (topic, payload) to a subscriber.
#ifndef QUOREL_TESTSUPPORT_FAKE_BRIDGE_H
#define QUOREL_TESTSUPPORT_FAKE_BRIDGE_H

#include <string>
#include <vector>

#include "quorel/testsupport/fake_service.h"

namespace Quorel {
namespace Iot {
namespace Testing {

class CFakeBridge : public CFakeService {
public:
    explicit CFakeBridge(const std::string& address);

    // Text answered to every following "subscribe"; {"code":0} until changed.
    void set_subscribe_reply(const std::string& text);
    // Payloads (second argument) of the "publish" calls received so far, in order.
    std::vector<std::string> published() const;
    // Sends "subscribe_event" (topic, payload), addressed to destination.
    bool emit_event(const std::string& topic, const std::string& payload,
                    const std::string& destination = "iot.dmp.config.adapter");

private:
    mutable std::mutex m_reply_mutex;
    std::string m_subscribe_reply;  // guarded by m_reply_mutex
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
