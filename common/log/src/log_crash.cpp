#include "log_crash.h"

#include <signal.h>
#include <string.h>

#include <atomic>

#include "log_writer.h"

namespace Quorel {
namespace Iot {
namespace Log {

namespace {

constexpr int kFatalSignals[] = {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT};
struct sigaction g_previous[NSIG];
std::atomic<bool> g_installed{false};
std::atomic<bool> g_flushed{false};

void on_fatal_signal(int sig, siginfo_t* info, void* context) {
    // A second fatal signal while flushing (the buffer itself was torn) must not loop.
    if (!g_flushed.exchange(true)) CLogWriter::instance().crash_flush();
    const struct sigaction& previous = g_previous[sig];
    sigaction(sig, &previous, nullptr);
    if ((previous.sa_flags & SA_SIGINFO) != 0 && previous.sa_sigaction != nullptr) {
        previous.sa_sigaction(sig, info, context);
        return;
    }
    if (previous.sa_handler != SIG_DFL && previous.sa_handler != SIG_IGN) {
        previous.sa_handler(sig);
        return;
    }
    // A fault the kernel raised strikes again when the handler returns, now with the default
    // action; a signal that was sent (kill, abort) is sent again to reach it.
    if (info == nullptr || info->si_code <= 0) raise(sig);
}

}  // namespace

void install_crash_flush() {
    if (g_installed.exchange(true)) return;
    struct sigaction action;
    memset(&action, 0, sizeof(action));
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_SIGINFO;
    action.sa_sigaction = on_fatal_signal;
    for (int sig : kFatalSignals) sigaction(sig, &action, &g_previous[sig]);
}

}  // namespace Log
}  // namespace Iot
}  // namespace Quorel
