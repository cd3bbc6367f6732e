// CFakeKeychain: the gateway's keychain service played by a real bus service
// ("iot.gateway.security.keychain" at "/iot/gateway/security/keychain", interface
// "iot.gateway.security.keychain.sst"), speaking the shared-memory protocol of the keychain client.
// Items are kept in memory by name; tests can pre-seed and inspect them, and make the service
// slow, always answer a chosen code, answer short-buffer, misreport lengths, or answer without
// values. stop() and start() again take the service off the bus and bring it back with its items.
#ifndef QUOREL_TESTSUPPORT_FAKE_KEYCHAIN_H
#define QUOREL_TESTSUPPORT_FAKE_KEYCHAIN_H

#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "quorel/testsupport/fake_service.h"

namespace Quorel {
namespace Iot {
namespace Testing {

class CFakeKeychain : public CFakeService {
public:
    // kcGetKey's answer for an absent item (the real service's code for it is its own business).
    static constexpr int32_t kNotFound = -65534;

    explicit CFakeKeychain(const std::string& address);

    // bytes are stored verbatim (a trailing NUL, if any, is part of them).
    void set_item(const std::string& name, const std::string& bytes, int32_t type = 3);
    bool get_item(const std::string& name, std::string& bytes) const;
    bool has_item(const std::string& name) const;
    void erase_item(const std::string& name);

    size_t add_count() const;  // kcAddKey calls answered
    size_t get_count() const;  // kcGetKey calls answered
    // Executable path the client put in the segment with the last kcAddKey / kcGetKey.
    std::string last_exe_path() const;

    void set_delay_ms(int delay_ms);  // answer every call this much later
    // Answer every call with this result (0 = normal); kcAddKey then stores nothing, and kcGetKey
    // and the transforms answer length 0.
    void set_forced_result(int32_t result);
    void set_always_short_buffer(bool always);  // kcGetKey always answers -65526 with the item length

    // A service that misreports lengths: claim(capacity offered, true length) is the length put in
    // every kcGetKey answer for a present item and every transform answer (result 0 or -65526).
    // Which result is answered, and what is written, still follow the true length and never
    // exceed the capacity. An empty function restores the truth.
    using LengthClaim = std::function<int32_t(int32_t capacity, int32_t length)>;
    void set_length_claim(LengthClaim claim);
    // Answer every call with a method return that carries no values at all.
    void set_empty_replies(bool empty);

    // The toy cipher of kcEncryptData / kcDecryptData: its own inverse, keyed by the item name.
    static std::string scramble(const std::string& input, const std::string& name);

private:
    DBusMessage* handle_add(DBusMessage* call);
    DBusMessage* handle_get(DBusMessage* call);
    DBusMessage* handle_encrypt(DBusMessage* call, bool decrypt);
    // Waits the configured delay (outside the lock) and returns the forced result.
    int32_t delay_then_forced_result() const;
    // The length to report for an answer of true length to a call that offered capacity.
    int32_t claimed_length(int32_t capacity, int32_t length) const;  // requires m_items_mutex

    struct Item {
        std::string bytes;
        int32_t type;
    };
    mutable std::mutex m_items_mutex;
    std::map<std::string, Item> m_items;  // guarded by m_items_mutex
    size_t m_add_count = 0;               // guarded by m_items_mutex
    size_t m_get_count = 0;               // guarded by m_items_mutex
    std::string m_last_exe_path;          // guarded by m_items_mutex
    int m_delay_ms = 0;                   // guarded by m_items_mutex
    int32_t m_forced_result = 0;          // guarded by m_items_mutex
    bool m_always_short = false;          // guarded by m_items_mutex
    LengthClaim m_length_claim;           // guarded by m_items_mutex; called with it held
    bool m_empty_replies = false;         // guarded by m_items_mutex
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
