// watchdog-devd: a development stand-in for the gateway's watchdog.
//
//   watchdog-devd [bus-address]
//
// The bus address defaults to CONFIG_MANAGER_BUS_ADDRESS, else the gateway's bus. Prints each
// feedDog with its time on standard output. Exits with 0 on SIGTERM or SIGINT, 1 when it cannot
// start or loses the bus, 2 on bad usage.
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include "quorel/tools/stop_signals.h"
#include "watchdog_listener.h"

int main(int argc, char** argv) {
    if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
        fprintf(stderr, "usage: %s [bus-address]\n", argv[0]);
        return 2;
    }
    Quorel::Iot::Tools::install_stop_handlers();
    CWatchdogListener listener;
    if (!listener.connect(argc == 2 ? argv[1] : Quorel::Iot::Keychain::bus_address())) return 1;
    return listener.run(Quorel::Iot::Tools::g_stop_requested) ? 0 : 1;
}
