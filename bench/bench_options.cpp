#include "bench_options.h"

namespace Quorel {
namespace Iot {
namespace Bench {

void print_usage(FILE* out) {
    fprintf(out,
            "usage: cm-bench [--out FILE] [--config-manager PATH] [--keychain-devd PATH] [--quick] [--keep]\n"
            "                [--peer dconf|none]\n"
            "  --out FILE             figures as JSON (default bench-results.json)\n"
            "  --config-manager PATH  the service under test (default: the one built with cm-bench)\n"
            "  --keychain-devd PATH   the development keychain service (default: the one built with cm-bench)\n"
            "  --quick                short measurements, no 100,000-key run (checks the harness only)\n"
            "  --keep                 keep the work directory with the services' logs\n"
            "  --peer dconf           also measure dconf's write and read beside set_config and get_config\n"
            "                         (needs dconf-service, and libdconf-dev when cm-bench is built);\n"
            "                         --peer none turns it off again\n");
}

bool parse_options(int argc, const char* const* argv, COptions& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        const bool has_value = i + 1 < argc;
        if (arg == "--out" && has_value) {
            options.out = argv[++i];
        } else if (arg == "--config-manager" && has_value) {
            options.config_manager = argv[++i];
        } else if (arg == "--keychain-devd" && has_value) {
            options.keychain_devd = argv[++i];
        } else if (arg == "--quick") {
            options.quick = true;
        } else if (arg == "--keep") {
            options.keep = true;
        } else if (arg == "--peer" && has_value) {
            const std::string peer = argv[++i];
            if (peer == "dconf") {
                options.peer_dconf = true;
            } else if (peer == "none") {
                options.peer_dconf = false;
            } else {
                return false;
            }
        } else {
            return false;
        }
    }
    return !options.config_manager.empty() && !options.keychain_devd.empty();
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
