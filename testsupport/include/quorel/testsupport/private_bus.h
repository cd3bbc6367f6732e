// CPrivateBus: a real dbus-daemon on a socket of its own, started for one test and killed with it
// (PR_SET_PDEATHSIG), so test binaries can run in parallel without sharing a bus.
#ifndef QUOREL_TESTSUPPORT_PRIVATE_BUS_H
#define QUOREL_TESTSUPPORT_PRIVATE_BUS_H

#include <sys/types.h>

#include <string>

namespace Quorel {
namespace Iot {
namespace Testing {

class CPrivateBus {
public:
    CPrivateBus() = default;
    ~CPrivateBus();
    CPrivateBus(const CPrivateBus&) = delete;
    CPrivateBus& operator=(const CPrivateBus&) = delete;

    // Starts the daemon and waits until it prints its address; false on any failure.
    bool start();
    // Kills the daemon (SIGKILL) and waits for it; the socket directory is removed.
    void stop();
    // Sets CONFIG_MANAGER_BUS_ADDRESS to this bus, for code whose address is otherwise fixed.
    void export_address() const;

    const std::string& address() const { return m_address; }
    pid_t pid() const { return m_pid; }

private:
    std::string m_dir;
    std::string m_address;
    pid_t m_pid = -1;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
