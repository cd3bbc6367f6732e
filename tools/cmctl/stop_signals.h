// CStopSignals: SIGINT, SIGTERM and SIGHUP as something to poll, for watch and own. The signals
// are blocked from install on, so none can end the process between taking the bus name and giving
// up the subscriptions; a signal that arrives while cmctl is busy waits on the descriptor.
#ifndef CMCTL_STOP_SIGNALS_H
#define CMCTL_STOP_SIGNALS_H

#include <string>

namespace Quorel {
namespace Iot {
namespace Cmctl {

class CStopSignals {
public:
    CStopSignals() = default;
    ~CStopSignals();
    CStopSignals(const CStopSignals&) = delete;
    CStopSignals& operator=(const CStopSignals&) = delete;

    // Blocks the stop signals and opens the descriptor; SIGPIPE is ignored as well, so a reader
    // that goes away shows up as a write error and cmctl still cleans up. False with the reason.
    bool install(std::string& error);
    // Readable once a stop signal is pending.
    int fd() const { return m_fd; }
    // Takes the pending stop signal: its number, or 0 if none.
    int take();

private:
    int m_fd = -1;
};

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
