// CWatchdogListener: stands in for the gateway's watchdog "iot.gateway.watchdog" on a developer's
// bus. It owns the name, so the "feedDog" signals the services address to it arrive, prints each
// feed with its time, and says when a service that fed once lets its own time-out pass without
// feeding again, which on a gateway would reboot the device.
#ifndef WATCHDOG_DEVD_WATCHDOG_LISTENER_H
#define WATCHDOG_DEVD_WATCHDOG_LISTENER_H

#include <dbus/dbus.h>
#include <signal.h>

#include <chrono>
#include <map>
#include <string>

#include "quorel/keychain/keychain_wire.h"
#include "quorel/tools/timestamped_line.h"

class CWatchdogListener {
public:
    bool connect(const std::string& address);
    // Serves until stop becomes non-zero (checked every 100 ms) or the bus goes away (false).
    bool run(const volatile sig_atomic_t& stop);

private:
    struct Feeder {
        std::chrono::steady_clock::time_point last;
        int timeout_s = 0;
        bool overdue = false;
    };
    void handle_feed(DBusMessage* signal);
    void check_overdue();

    Quorel::Iot::Keychain::ConnectionPtr m_connection;
    std::map<std::string, Feeder> m_feeders;  // by the feeder's name argument
};

using Quorel::Iot::Tools::print_line;

#endif
