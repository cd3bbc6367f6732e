// The bridge's command line:
//
//   mqtt-bridge-devd [--host H] [--port P] [--address BUS] [--ack-timeout MS]
//                    [--max-subscriptions N] [--help]
//
// Each option also takes the --name=value form.
#ifndef MQTT_BRIDGE_DEVD_BRIDGE_OPTIONS_H
#define MQTT_BRIDGE_DEVD_BRIDGE_OPTIONS_H

#include <cstddef>
#include <string>

constexpr char kDefaultBusAddress[] = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
constexpr char kBusAddressVariable[] = "CONFIG_MANAGER_BUS_ADDRESS";

struct CBridgeOptions {
    std::string host = "localhost";
    int port = 1883;
    std::string bus_address;  // CONFIG_MANAGER_BUS_ADDRESS, else the gateway's bus, unless --address
    int ack_timeout_ms = 3000;
    size_t max_subscriptions = 0;  // BridgeLimits::kDefaultMaxSubscriptions unless --max-subscriptions
    bool help = false;
};

// Fills options from argv; false with a one-line reason in error on bad usage.
bool parse_options(int argc, char** argv, CBridgeOptions& options, std::string& error);
std::string usage_text(const char* program);

#endif
