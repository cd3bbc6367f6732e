#include "quorel/testsupport/fake_keychain.h"

#include <string.h>

#include <chrono>
#include <thread>
#include <utility>

#include "quorel/keychain/keychain_wire.h"

namespace Quorel {
namespace Iot {
namespace Testing {

namespace Wire = Quorel::Iot::Keychain;

static_assert(CFakeKeychain::kNotFound == Wire::kResultNotFound, "the fake answers absent items like our services");

CFakeKeychain::CFakeKeychain(const std::string& address) : CFakeService(address, Wire::kServiceName) {
    on(Wire::kAddKey, [this](DBusMessage* call) { return handle_add(call); });
    on(Wire::kGetKey, [this](DBusMessage* call) { return handle_get(call); });
    on(Wire::kEncryptData, [this](DBusMessage* call) { return handle_encrypt(call, false); });
    on(Wire::kDecryptData, [this](DBusMessage* call) { return handle_encrypt(call, true); });
}

void CFakeKeychain::set_item(const std::string& name, const std::string& bytes, int32_t type) {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    m_items[name] = Item{bytes, type};
}

bool CFakeKeychain::get_item(const std::string& name, std::string& bytes) const {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    auto it = m_items.find(name);
    if (it == m_items.end()) return false;
    bytes = it->second.bytes;
    return true;
}

bool CFakeKeychain::has_item(const std::string& name) const {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    return m_items.count(name) != 0;
}

void CFakeKeychain::erase_item(const std::string& name) {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    m_items.erase(name);
}

size_t CFakeKeychain::add_count() const {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    return m_add_count;
}

size_t CFakeKeychain::get_count() const {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    return m_get_count;
}

std::string CFakeKeychain::last_exe_path() const {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    return m_last_exe_path;
}

void CFakeKeychain::set_delay_ms(int delay_ms) {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    m_delay_ms = delay_ms;
}

void CFakeKeychain::set_forced_result(int32_t result) {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    m_forced_result = result;
}

void CFakeKeychain::set_always_short_buffer(bool always) {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    m_always_short = always;
}

void CFakeKeychain::set_length_claim(LengthClaim claim) {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    m_length_claim = std::move(claim);
}

void CFakeKeychain::set_empty_replies(bool empty) {
    std::lock_guard<std::mutex> lock(m_items_mutex);
    m_empty_replies = empty;
}

int32_t CFakeKeychain::claimed_length(int32_t capacity, int32_t length) const {
    return m_length_claim ? m_length_claim(capacity, length) : length;
}

std::string CFakeKeychain::scramble(const std::string& input, const std::string& name) {
    std::string output = input;
    for (size_t i = 0; i < output.size(); ++i) {
        const char key = name.empty() ? 0 : name[i % name.size()];
        output[i] = static_cast<char>(output[i] ^ key ^ 0x5A);
    }
    return output;
}

int32_t CFakeKeychain::delay_then_forced_result() const {
    int delay_ms;
    int32_t forced;
    {
        std::lock_guard<std::mutex> lock(m_items_mutex);
        delay_ms = m_delay_ms;
        forced = m_forced_result;
    }
    // The service thread plays a slow keychain; the test itself never sleeps.
    if (delay_ms > 0) std::this_thread::sleep_for(std::chrono::milliseconds(delay_ms));
    return forced;
}

DBusMessage* CFakeKeychain::handle_add(DBusMessage* call) {
    const int32_t forced = delay_then_forced_result();
    Wire::CAddRequest request;
    const bool well_formed = Wire::read_add_request(call, request);
    std::lock_guard<std::mutex> lock(m_items_mutex);
    ++m_add_count;
    if (!well_formed) return Wire::reply_ints(call, {KC_ERR_BAD_PARAMS});
    m_last_exe_path = request.exe_path;
    if (m_empty_replies) return dbus_message_new_method_return(call);
    if (forced != 0) return Wire::reply_ints(call, {forced});
    m_items[request.name] = Item{request.bytes, request.type};
    return Wire::reply_ints(call, {KC_SUCCESS});
}

DBusMessage* CFakeKeychain::handle_get(DBusMessage* call) {
    const int32_t forced = delay_then_forced_result();
    Wire::CGetRequest request;
    const bool well_formed = request.read(call);
    std::lock_guard<std::mutex> lock(m_items_mutex);
    ++m_get_count;
    if (!well_formed) return Wire::reply_ints(call, {KC_ERR_BAD_PARAMS, 0, 0});
    m_last_exe_path = request.exe_path();
    if (m_empty_replies) return dbus_message_new_method_return(call);
    if (forced != 0) return Wire::reply_ints(call, {forced, 0, 0});
    auto it = m_items.find(request.name());
    if (it == m_items.end()) return request.answer(call, nullptr, 0);
    const Item& item = it->second;
    const int32_t reported = claimed_length(request.capacity(), static_cast<int32_t>(item.bytes.size()));
    if (m_always_short) return Wire::reply_ints(call, {KC_ERR_SHORT_BUFFER, reported, item.type});
    const bool written = request.put_output(item.bytes);
    return Wire::reply_ints(call, {written ? KC_SUCCESS : KC_ERR_SHORT_BUFFER, reported, item.type});
}

DBusMessage* CFakeKeychain::handle_encrypt(DBusMessage* call, bool decrypt) {
    const int32_t forced = delay_then_forced_result();
    int32_t id = -1;
    int32_t input_length = -1;
    int32_t capacity = -1;
    if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_INT32, &id, DBUS_TYPE_INT32, &input_length, DBUS_TYPE_INT32,
                               &capacity, DBUS_TYPE_INVALID) ||
        input_length < 0 || capacity < 0) {
        return Wire::reply_ints(call, {KC_ERR_BAD_PARAMS, 0});
    }
    Wire::CAttachedSegment segment(id);
    size_t offset = 0;
    std::string name;
    std::string input;
    // Encryption carries the input first, decryption the name first.
    const bool well_formed =
        segment.attached() &&
        (decrypt ? segment.read_string(offset, name) && segment.read_bytes(offset, input_length, input)
                 : segment.read_bytes(offset, input_length, input) && segment.read_string(offset, name)) &&
        segment.fits(offset, capacity);
    if (!well_formed) return Wire::reply_ints(call, {KC_ERR_BAD_PARAMS, 0});
    std::lock_guard<std::mutex> lock(m_items_mutex);
    if (m_empty_replies) return dbus_message_new_method_return(call);
    if (forced != 0) return Wire::reply_ints(call, {forced, 0});
    const std::string output = scramble(input, name);
    const int32_t output_length = static_cast<int32_t>(output.size());
    const int32_t reported = claimed_length(capacity, output_length);
    if (output_length > capacity) return Wire::reply_ints(call, {KC_ERR_SHORT_BUFFER, reported});
    memcpy(segment.data() + offset, output.data(), output.size());
    return Wire::reply_ints(call, {KC_SUCCESS, reported});
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
