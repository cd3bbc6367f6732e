// cm-bench: how close config-manager comes to what the bus itself can do on this machine.
// Starts a private bus, the development keychain service and config-manager, measures, prints
// a table and writes the figures as JSON. Run through scripts/bench.sh.
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "bench_options.h"
#include "bench_responder.h"
#include "bench_run.h"
#include "quorel/testsupport/private_bus.h"

#ifndef CM_BENCH_CONFIG_MANAGER
#define CM_BENCH_CONFIG_MANAGER ""
#endif
#ifndef CM_BENCH_KEYCHAIN_DEVD
#define CM_BENCH_KEYCHAIN_DEVD ""
#endif

int main(int argc, char** argv) {
    using namespace Quorel::Iot;
    if (argc > 1 && (strcmp(argv[1], Bench::kEchoMode) == 0 || strcmp(argv[1], Bench::kObserverMode) == 0)) {
        return Bench::run_responder(argc - 1, argv + 1);
    }
    Bench::COptions options;
    options.config_manager = CM_BENCH_CONFIG_MANAGER;
    options.keychain_devd = CM_BENCH_KEYCHAIN_DEVD;
    if (!Bench::parse_options(argc, argv, options)) {
        Bench::print_usage(stderr);
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
