#include "bridge_options.h"

#include <errno.h>
#include <stdlib.h>

#include "bridge_limits.h"

namespace {

// Whole decimal numbers in [low, high] only: "12x", "", "-0x1" and overflow are refused.
bool parse_number(const std::string& text, long low, long high, long& value) {
    if (text.empty() || text.size() > 18) return false;
    for (char c : text)
        if (c < '0' || c > '9') return false;
    errno = 0;
    value = strtol(text.c_str(), nullptr, 10);
    return errno == 0 && value >= low && value <= high;
}

std::string default_bus_address() {
    const char* overridden = getenv(kBusAddressVariable);
    return overridden != nullptr && overridden[0] != '\0' ? overridden : kDefaultBusAddress;
}

}  // namespace

std::string usage_text(const char* program) {
    return std::string("usage: ") + program +
           " [--host H] [--port P] [--address BUS] [--ack-timeout MS] [--max-subscriptions N]\n"
           "\n"
           "Serves iot.bridge.mqtt on the bus and relays it to an MQTT broker.\n"
           "  --host H               broker host (default localhost)\n"
           "  --port P               broker port, 1-65535 (default 1883)\n"
           "  --address BUS          bus address (default $" +
           kBusAddressVariable + ", else " + kDefaultBusAddress +
           ")\n"
           "  --ack-timeout MS       how long a call waits for SUBACK/PUBACK, 10-60000 (default 3000)\n"
           "  --max-subscriptions N  (topic filter, subscriber) pairs kept, 1-1000000 (default 4096)\n"
           "  --help                 this text\n";
}

bool parse_options(int argc, char** argv, CBridgeOptions& options, std::string& error) {
    options = CBridgeOptions();
    options.bus_address = default_bus_address();
    options.max_subscriptions = BridgeLimits::kDefaultMaxSubscriptions;
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        std::string value;
        bool has_value = false;
        const size_t equals = name.find('=');
        if (name.compare(0, 2, "--") == 0 && equals != std::string::npos) {
            value = name.substr(equals + 1);
            name.resize(equals);
            has_value = true;
        }
        if (name == "--help" || name == "-h") {
            options.help = true;
            continue;
        }
        if (name != "--host" && name != "--port" && name != "--address" && name != "--ack-timeout" &&
            name != "--max-subscriptions") {
            error = name.compare(0, 1, "-") == 0 ? "unknown option " + name : "unexpected argument " + name;
            return false;
        }
        if (!has_value) {
            if (i + 1 >= argc) {
                error = name + " needs a value";
                return false;
            }
            value = argv[++i];
        }
        long number = 0;
        if (name == "--host") {
            if (value.empty()) {
                error = "--host needs a non-empty value";
                return false;
            }
            options.host = value;
        } else if (name == "--address") {
            if (value.empty()) {
                error = "--address needs a non-empty value";
                return false;
            }
            options.bus_address = value;
        } else if (name == "--port") {
            if (!parse_number(value, 1, 65535, number)) {
                error = "--port must be a number from 1 to 65535, not '" + value + "'";
                return false;
            }
            options.port = static_cast<int>(number);
        } else if (name == "--ack-timeout") {
            if (!parse_number(value, 10, 60000, number)) {
                error = "--ack-timeout must be a number of milliseconds from 10 to 60000, not '" + value + "'";
                return false;
            }
            options.ack_timeout_ms = static_cast<int>(number);
        } else {
            if (!parse_number(value, 1, 1000000, number)) {
                error = "--max-subscriptions must be a number from 1 to 1000000, not '" + value + "'";
                return false;
            }
            options.max_subscriptions = static_cast<size_t>(number);
        }
    }
    return true;
}
