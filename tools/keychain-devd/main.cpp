// keychain-devd: a development stand-in for the gateway's keychain service, so that a developer's
// config-manager keeps its configuration across restarts.
//
//   keychain-devd <data-dir> [bus-address]
//
// The bus address defaults to CONFIG_MANAGER_BUS_ADDRESS, else the gateway's bus. Items are kept
// as plain files in data-dir: nothing is encrypted or checked, which is fine only on a developer's
// machine. Exits with 0 on SIGTERM or SIGINT, 1 when it cannot start or loses the bus, 2 on bad usage.
#include <signal.h>
#include <stdio.h>
#include <string.h>

#include <string>

#include "devd_service.h"
#include "item_store.h"
#include "quorel/keychain/keychain_wire.h"
#include "quorel/log/log.h"
#include "quorel/tools/stop_signals.h"

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/tools/keychain-devd/main";

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || argc > 3) {
        fprintf(stderr, "usage: %s <data-dir> [bus-address]\n", argv[0]);
        return 2;
    }
    log_init("keychain-devd", 1, 0, 2);
    Quorel::Iot::Tools::install_stop_handlers();
    const std::string address = argc == 3 ? argv[2] : Quorel::Iot::Keychain::bus_address();

    CItemStore store(argv[1]);
    if (!store.open()) return 1;
    CDevService service(store);
    if (!service.connect(address)) return 1;
    const bool stopped_by_signal = service.run(Quorel::Iot::Tools::g_stop_requested);
    QLOG(1, "main, %s", stopped_by_signal ? "stopped" : "giving up");
    return stopped_by_signal ? 0 : 1;
}
