// How the development programs stop: SIGTERM or SIGINT only raises a flag, which the program's loop
// checks (or waits for), so every program ends through its own orderly path with status 0.
#ifndef QUOREL_TOOLS_STOP_SIGNALS_H
#define QUOREL_TOOLS_STOP_SIGNALS_H

#include <signal.h>
#include <string.h>

namespace Quorel {
namespace Iot {
namespace Tools {

inline volatile sig_atomic_t g_stop_requested = 0;

inline void on_stop_signal(int) { g_stop_requested = 1; }

// SIGTERM and SIGINT.
inline sigset_t stop_signal_set() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

// Also ignores SIGPIPE: a bus or broker that goes away mid-write shows as an error return rather
// than as death of the process.
inline void install_stop_handlers() {
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    action.sa_handler = on_stop_signal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

// Sleeps until a stop signal has come. The signals are blocked between the check and the wait, so
// one arriving in between is not missed.
inline void wait_for_stop() {
    const sigset_t stops = stop_signal_set();
    sigset_t previous;
    sigprocmask(SIG_BLOCK, &stops, &previous);
    sigset_t wait_mask = previous;
    sigdelset(&wait_mask, SIGTERM);
    sigdelset(&wait_mask, SIGINT);
    while (g_stop_requested == 0) sigsuspend(&wait_mask);
    sigprocmask(SIG_SETMASK, &previous, nullptr);
}

}  // namespace Tools
}  // namespace Iot
}  // namespace Quorel

#endif
