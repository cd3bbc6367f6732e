// The bridge's one thread: a single poll over the bus socket and the broker socket. Forwarding
// is then one read from the broker and one write to the bus, back to back, with no hand-over
// between threads (where a message could wait for another thread's poll to time out).
#ifndef MQTT_BRIDGE_DEVD_BRIDGE_LOOP_H
#define MQTT_BRIDGE_DEVD_BRIDGE_LOOP_H

#include <signal.h>

#include "bridge_service.h"
#include "bus_link.h"
#include "mqtt_link.h"

// Runs until stop becomes non-zero (true) or the bus goes away (false). The stop signals must be
// blocked by the caller: they are let through only while the loop waits, in wait_mask, so that
// one arriving just before the wait cannot be missed.
bool run_bridge_loop(CBusLink& bus, CMqttLink& mqtt, CBridgeService& service, const volatile sig_atomic_t& stop,
                     const sigset_t& wait_mask);

#endif
