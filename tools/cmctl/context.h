// CContext: what every command works with: the global options and, once a command asks for it,
// the bus connection and the configuration service's client on it.
#ifndef CMCTL_CONTEXT_H
#define CMCTL_CONTEXT_H

#include <memory>
#include <string>

#include "bus_connection.h"
#include "config_client.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

class CContext {
public:
    CContext(std::string address, int timeout_ms) : m_address(std::move(address)), m_timeout_ms(timeout_ms) {}

    // Opens the bus on first use: kExitOk, or kExitUnreachable after saying why not.
    int connect();

    CBusConnection& bus() { return m_bus; }
    CConfigClient& client() { return *m_client; }
    const std::string& address() const { return m_address; }
    int timeout_ms() const { return m_timeout_ms; }

private:
    std::string m_address;
    int m_timeout_ms;
    CBusConnection m_bus;
    std::unique_ptr<CConfigClient> m_client;
};

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
