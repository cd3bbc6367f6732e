// cm-bench: how close config-manager comes to what the bus itself can do on this machine.
// Starts a private bus, the development keychain service and config-manager, measures, prints
// a table and writes the figures as JSON. Run through scripts/bench.sh.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "bench_responder.h"
#include "bench_run.h"
#include "quorel/testsupport/private_bus.h"

#ifndef CM_BENCH_CONFIG_MANAGER
#define CM_BENCH_CONFIG_MANAGER ""
#endif
#ifndef CM_BENCH_KEYCHAIN_DEVD
#define CM_BENCH_KEYCHAIN_DEVD ""
#endif

namespace {

using Quorel::Iot::Bench::COptions;

void usage() {
    fprintf(stderr,
            "usage: cm-bench [--out FILE] [--config-manager PATH] [--keychain-devd PATH] [--quick] [--keep]\n"
            "  --out FILE             figures as JSON (default bench-results.json)\n"
            "  --config-manager PATH  the service under test (default: the one built with cm-bench)\n"
            "  --keychain-devd PATH   the development keychain service (default: the one built with cm-bench)\n"
            "  --quick                short measurements, no 100,000-key run (checks the harness only)\n"
            "  --keep                 keep the work directory with the services' logs\n");
}

bool parse(int argc, char** argv, COptions& options) {
    options.config_manager = CM_BENCH_CONFIG_MANAGER;
    options.keychain_devd = CM_BENCH_KEYCHAIN_DEVD;
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
        } else {
            return false;
        }
    }
    return !options.config_manager.empty() && !options.keychain_devd.empty();
}

}  // namespace

int main(int argc, char** argv) {
    using namespace Quorel::Iot;
    if (argc > 1 && (strcmp(argv[1], Bench::kEchoMode) == 0 || strcmp(argv[1], Bench::kObserverMode) == 0)) {
        return Bench::run_responder(argc - 1, argv + 1);
    }
    COptions options;
    if (!parse(argc, argv, options)) {
        usage();
        return 1;
    }
    dbus_threads_init_default();
    char work_template[] = "/tmp/cm-bench-XXXXXX";
    if (mkdtemp(work_template) == nullptr) {
        perror("cm-bench: mkdtemp");
        return 1;
    }
    const std::string work_dir = work_template;
    int status = 1;
    {
        Testing::CPrivateBus bus;
        if (!bus.start()) {
            fprintf(stderr, "cm-bench: cannot start a private dbus-daemon\n");
        } else {
            // config-manager and its keychain client find the bus through this variable.
            bus.export_address();
            status = Bench::CBenchRun(options, bus.address(), work_dir).run();
        }
    }
    if (options.keep) {
        fprintf(stderr, "cm-bench: logs kept in %s\n", work_dir.c_str());
    } else {
        const std::string command = "rm -rf '" + work_dir + "'";
        if (system(command.c_str()) != 0) fprintf(stderr, "cm-bench: could not remove %s\n", work_dir.c_str());
    }
    return status;
}
