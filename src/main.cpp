// Process entry of config-manager: starts the configuration service, then the cloud shadow
// adapter, waits for SIGTERM or the loss of the bus, and shuts both down in order.
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <list>
#include <string>

#include "quorel/configmanager/config_adapter.h"
#include "quorel/configmanager/config_business.h"
#include "quorel/keychain/keychain.h"
#include "quorel/log/log.h"
#include "quorel/platform/service_manager.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

// The two services; null before construction and after deletion.
CConfigBusiness* g_config_business = nullptr;
CConfigAdatper* g_config_adapter = nullptr;

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

namespace {

using namespace Quorel::Iot::Configmanager;

constexpr const char kLogFile[] = "core-services/config-manager/src/main";
constexpr const char kDefaultFile[] = "./default.json";
constexpr const char kBusAddress[] = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
constexpr const char kBusAddressVariable[] = "CONFIG_MANAGER_BUS_ADDRESS";
constexpr const char kBusinessName[] = "iot.dmp.configmanager";
constexpr const char kAdapterName[] = "iot.dmp.config.adapter";

// Development machines and tests run their own bus.
std::string bus_address() {
    const char* address = getenv(kBusAddressVariable);
    return address != nullptr && address[0] != '\0' ? address : kBusAddress;
}

void signal_handler(int sig) {
    printf("Caught signal: %s, exiting...\n", strsignal(sig));
    fflush(stdout);
    g_exit_sem.post();
}

int start(int argc, char** argv) {
    QLOG(1, "main, config-manager service start.");
    // A failing keychain shows up later as store failures; the client prints its own diagnostics.
    kc_init();
    const std::string path = argc > 1 ? argv[1] : kDefaultFile;
    const std::string address = bus_address();

    const std::list<std::string> business_rules;
    g_config_business = new CConfigBusiness(address, kBusinessName, business_rules);
    if (!g_config_business->start(path)) {
        // Nothing is torn down: the process ends right away.
        QLOG(3, "main, config business start error.");
        return -1;
    }
    const std::list<std::string> adapter_rules;
    g_config_adapter = new CConfigAdatper(address, kAdapterName, adapter_rules);
    if (!g_config_adapter->start()) {
        // The configuration service keeps answering until the process is gone.
        QLOG(3, "main, adapter start error.");
        return -1;
    }

    // Both bus names are owned: a service manager may now start what depends on us.
    Quorel::Iot::Platform::notify_ready();
    g_exit_sem.wait(0);
    Quorel::Iot::Platform::notify_stopping();

    g_config_adapter->stop();
    delete g_config_adapter;
    g_config_adapter = nullptr;
    g_config_business->stop();
    delete g_config_business;
    g_config_business = nullptr;
    kc_deinit();
    QLOG(1, "main, config-manager service stop.");
    // The adapter's detached threads may still exist; they hold no resources of ours and end
    // with the process.
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    sigemptyset(&action.sa_mask);
    action.sa_flags = 0;
    action.sa_handler = signal_handler;
    sigaction(SIGTERM, &action, nullptr);
    log_init("config-manager", 1, 0, 2);
    return start(argc, argv);
}
