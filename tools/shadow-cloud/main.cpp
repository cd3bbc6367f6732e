// shadow-cloud: plays the cloud's device-shadow service on an MQTT broker, for development and
// tests. See usage() for the commands.
#include <mosquitto.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "cloud_link.h"
#include "command_client.h"
#include "quorel/tools/stop_signals.h"
#include "shadow_book.h"

using namespace ShadowCloud;

namespace {

constexpr int kUsageError = 2;

void usage(FILE* out) {
    fprintf(out,
            "usage: shadow-cloud [--host HOST] [--port PORT] [--timeout MS] COMMAND ...\n"
            "\n"
            "  serve [--state FILE]             play the cloud: answer each device's \"get\" with a \"reply\"\n"
            "                                   (desired, reported, version), merge its \"update\" documents,\n"
            "                                   and print every document received (<-) and sent (->).\n"
            "                                   FILE keeps the shadows across restarts.\n"
            "  desire DEVICE KEY=VALUE...       set desired values and push a \"control\" document with the\n"
            "                                   next version (VALUE null removes a key)\n"
            "  report DEVICE KEY=VALUE...       set the cloud's copy of reported values; nothing is pushed\n"
            "  show [DEVICE]                    print a device's shadow (all devices without DEVICE)\n"
            "\n"
            "DEVICE is <product key>/<device name>, e.g. pk01/gw-7. A VALUE that reads as a JSON number,\n"
            "true, false, null or \"quoted string\" is taken as such; anything else as text.\n"
            "The broker defaults to 127.0.0.1:1883. desire, report and show talk to a running\n"
            "\"shadow-cloud serve\" through the broker and exit 0 when it did the work, 1 when it refused,\n"
            "3 when no simulator answered within the time-out (default 3000 ms), 2 on bad usage.\n");
}

int usage_error(const std::string& message) {
    fprintf(stderr, "shadow-cloud: %s\n", message.c_str());
    fprintf(stderr, "Try 'shadow-cloud --help'.\n");
    return kUsageError;
}

bool parse_number(const char* text, long low, long high, int& value) {
    char* end = nullptr;
    errno = 0;
    const long n = strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || n < low || n > high) return false;
    value = static_cast<int>(n);
    return true;
}

int serve(const std::string& host, int port, const std::vector<std::string>& args) {
    std::string state;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--state" && i + 1 < args.size()) {
            state = args[++i];
        } else {
            return usage_error("serve: unexpected argument '" + args[i] + "'");
        }
    }
    Quorel::Iot::Tools::install_stop_handlers();

    CCloudLink link(host, port, state);
    std::string reason;
    if (!link.start(reason)) {
        fprintf(stderr, "shadow-cloud: %s\n", reason.c_str());
        return 1;
    }
    print_line("shadow-cloud serving on " + host + ":" + std::to_string(port) +
               (state.empty() ? "" : ", shadows kept in " + state));
    Quorel::Iot::Tools::wait_for_stop();
    link.stop();
    print_line("stopped");
    return 0;
}

int command(const std::string& host, int port, int timeout_ms, const std::string& name,
            const std::vector<std::string>& args) {
    std::string device;
    Json::Value values(Json::objectValue);
    if (name == "show") {
        if (args.size() > 1) return usage_error("show takes at most one DEVICE");
        if (!args.empty()) device = args[0];
    } else {
        if (args.size() < 2) return usage_error(name + " needs a DEVICE and at least one KEY=VALUE");
        device = args[0];
        for (size_t i = 1; i < args.size(); ++i) {
            std::string key;
            Json::Value value;
            if (!CShadowBook::parse_assignment(args[i], key, value)) {
                return usage_error("'" + args[i] + "' is not KEY=VALUE in UTF-8");
            }
            values[key] = value;
        }
    }
    if (!device.empty() && !CShadowBook::valid_device(device)) {
        return usage_error("'" + device + "' is not a device of the form <product key>/<device name>");
    }
    Json::Value answer;
    std::string reason;
    const int code = run_command(host, port, name, device, values, timeout_ms, answer, reason);
    if (code < 0) {
        fprintf(stderr, "shadow-cloud: %s\n", reason.c_str());
        return 3;
    }
    if (code != 0) {
        const Json::Value& message = answer["message"];
        fprintf(stderr, "shadow-cloud: %s\n", message.isString() ? message.asString().c_str() : "refused");
        return 1;
    }
    printf("%s", answer["shadow"].toStyledString().c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string host = "127.0.0.1";
    int port = 1883;
    int timeout_ms = 3000;
    int i = 1;
    for (; i < argc && argv[i][0] == '-'; ++i) {
        const std::string option = argv[i];
        if (option == "--help" || option == "-h") {
            usage(stdout);
            return 0;
        }
        if (i + 1 >= argc) return usage_error("option " + option + " needs a value");
        if (option == "--host") {
            host = argv[++i];
        } else if (option == "--port") {
            if (!parse_number(argv[++i], 1, 65535, port)) return usage_error("--port: not a port number");
        } else if (option == "--timeout") {
            if (!parse_number(argv[++i], 1, 600000, timeout_ms)) return usage_error("--timeout: not a number of ms");
        } else {
            return usage_error("unknown option " + option);
        }
    }
    if (i >= argc) return usage_error("no command given");
    const std::string name = argv[i++];
    const std::vector<std::string> args(argv + i, argv + argc);
    mosquitto_lib_init();
    int status;
    if (name == "serve") {
        status = serve(host, port, args);
    } else if (name == "desire" || name == "report" || name == "show") {
        status = command(host, port, timeout_ms, name, args);
    } else {
        status = usage_error("unknown command '" + name + "'");
    }
    mosquitto_lib_cleanup();
    return status;
}
