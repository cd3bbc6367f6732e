// CKeychainEnvironment: a private bus with the fake keychain service on it and the process's
// keychain client opened against it — what every test of persistent state starts from.
// The keychain client is process-wide: one environment at a time.
#ifndef QUOREL_TESTSUPPORT_KEYCHAIN_ENVIRONMENT_H
#define QUOREL_TESTSUPPORT_KEYCHAIN_ENVIRONMENT_H

#include <memory>

#include "quorel/testsupport/fake_keychain.h"
#include "quorel/testsupport/private_bus.h"

namespace Quorel {
namespace Iot {
namespace Testing {

class CKeychainEnvironment {
public:
    CKeychainEnvironment() = default;
    // Closes the keychain client; whatever uses it must be gone by then.
    ~CKeychainEnvironment() { stop(); }
    CKeychainEnvironment(const CKeychainEnvironment&) = delete;
    CKeychainEnvironment& operator=(const CKeychainEnvironment&) = delete;

    // Bus, CONFIG_MANAGER_BUS_ADDRESS, fake keychain, kc_init; false at the first failure.
    bool start();
    // The other way round: kc_deinit, fake keychain, bus.
    void stop();

    CPrivateBus& bus() { return m_bus; }
    CFakeKeychain& keychain() { return *m_keychain; }

private:
    CPrivateBus m_bus;
    std::unique_ptr<CFakeKeychain> m_keychain;
    bool m_client_open = false;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
