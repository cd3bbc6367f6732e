#include "quorel/testsupport/keychain_environment.h"

#include "quorel/keychain/keychain.h"

namespace Quorel {
namespace Iot {
namespace Testing {

bool CKeychainEnvironment::start() {
    if (!m_bus.start()) return false;
    m_bus.export_address();
    m_keychain = std::make_unique<CFakeKeychain>(m_bus.address());
    if (!m_keychain->start()) return false;
    m_client_open = kc_init() == KC_SUCCESS;
    return m_client_open;
}

void CKeychainEnvironment::stop() {
    if (m_client_open) kc_deinit();
    m_client_open = false;
    m_keychain.reset();
    m_bus.stop();
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
