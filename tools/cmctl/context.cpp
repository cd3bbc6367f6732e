#include "context.h"

#include "failure.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

int CContext::connect() {
    if (m_client) return kExitOk;
    std::string error;
    if (!m_bus.open(m_address, error)) {
        print_error("cannot connect to the bus at " + m_address + ": " + error);
        return kExitUnreachable;
    }
    m_client.reset(new CConfigClient(m_bus, m_timeout_ms));
    return kExitOk;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
