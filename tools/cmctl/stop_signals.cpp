#include "stop_signals.h"

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace Quorel {
namespace Iot {
namespace Cmctl {

CStopSignals::~CStopSignals() {
    if (m_fd >= 0) close(m_fd);
}

bool CStopSignals::install(std::string& error) {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGHUP);
    if (sigprocmask(SIG_BLOCK, &stop, nullptr) != 0) {
        error = strerror(errno);
        return false;
    }
    m_fd = signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK);
    if (m_fd < 0) {
        error = strerror(errno);
        return false;
    }
    signal(SIGPIPE, SIG_IGN);
    return true;
}

int CStopSignals::take() {
    struct signalfd_siginfo info;
    if (read(m_fd, &info, sizeof(info)) != static_cast<ssize_t>(sizeof(info))) return 0;
    return static_cast<int>(info.ssi_signo);
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
