// mqtt-bridge-devd: a development stand-in for the gateway's MQTT bridge "iot.bridge.mqtt", so
// that a developer's config-manager can reach a real broker (mosquitto on the same machine, say).
//
//   mqtt-bridge-devd [--host H] [--port P] [--address BUS] [--ack-timeout MS] [--max-subscriptions N]
//
// Exits with 0 on SIGTERM or SIGINT, 1 when it cannot start or loses the bus, 2 on bad usage. The
// broker may come and go: the bridge reconnects and renews its subscriptions by itself.
#include <mosquitto.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <chrono>
#include <string>

#include "bridge_loop.h"
#include "bridge_options.h"
#include "bridge_service.h"
#include "bus_link.h"
#include "mqtt_link.h"
#include "quorel/log/log.h"
#include "quorel/tools/stop_signals.h"

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/tools/mqtt-bridge-devd/main";

// SIGTERM and SIGINT are let through only during the loop's wait, so none is missed between a
// check of the flag and the wait; returns the mask to wait with.
sigset_t block_stop_signals() {
    Quorel::Iot::Tools::install_stop_handlers();
    const sigset_t stops = Quorel::Iot::Tools::stop_signal_set();
    sigset_t wait_mask;
    sigprocmask(SIG_BLOCK, &stops, &wait_mask);
    sigdelset(&wait_mask, SIGTERM);
    sigdelset(&wait_mask, SIGINT);
    return wait_mask;
}

// libmosquitto wants one initialisation per process, undone at the end.
struct CMosquittoLibrary {
    CMosquittoLibrary() { mosquitto_lib_init(); }
    ~CMosquittoLibrary() { mosquitto_lib_cleanup(); }
};

}  // namespace

int main(int argc, char** argv) {
    CBridgeOptions options;
    std::string error;
    if (!parse_options(argc, argv, options, error)) {
        fprintf(stderr, "%s: %s (see --help)\n", argv[0], error.c_str());
        return 2;
    }
    if (options.help) {
        fputs(usage_text(argv[0]).c_str(), stdout);
        return 0;
    }
    log_init("mqtt-bridge-devd", 1, 0, 2);
    const sigset_t wait_mask = block_stop_signals();
    CMosquittoLibrary library;

    CBusLink bus;
    CBridgeService service(bus, std::chrono::milliseconds(options.ack_timeout_ms), options.max_subscriptions);
    CMqttLink mqtt(options.host, options.port, service);
    service.attach(mqtt);
    if (!mqtt.init()) return 1;
    if (!bus.open(options.bus_address, kBridgeName,
                  [&service](DBusMessage* message) { return service.handle(message); })) {
        return 1;
    }
    QLOG(1, "main, relaying to the broker %s:%d", options.host.c_str(), options.port);
    const bool stopped_by_signal = run_bridge_loop(bus, mqtt, service, Quorel::Iot::Tools::g_stop_requested, wait_mask);
    service.stop();
    mqtt.disconnect();
    bus.flush();
    QLOG(1, "main, %s", stopped_by_signal ? "stopped" : "giving up");
    return stopped_by_signal ? 0 : 1;
}
