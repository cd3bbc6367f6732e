// The owner handshake: set requests waiting for a key owner's answer and the owner's completion.
#include <cstdint>
#include <memory>

#include "config_business_codes.h"
#include "quorel/configmanager/config_business.h"
#include "quorel/configmanager/limits.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {
constexpr const char kLogFile[] = "core-services/config-manager/src/config_business";
using namespace BusinessCode;
}  // namespace

void CConfigBusiness::defer_reply(uint64_t serial, const DBus::CDBusMethodReturn& reply, const std::string& key,
                                  const std::string& value, const std::string& owner) {
    std::unique_ptr<PendingReply> pending(new PendingReply{reply, key, value, owner});
    Platform::CMutexGuard guard(m_pending_mutex);
    m_pending_replies[serial] = std::move(pending);
    ++m_questions_per_owner[owner];
}

bool CConfigBusiness::may_ask(const std::string& owner) {
    Platform::CMutexGuard guard(m_pending_mutex);
    if (m_pending_replies.size() >= Limits::kMaxOwnerQuestionsTotal) return false;
    const auto it = m_questions_per_owner.find(owner);
    return it == m_questions_per_owner.end() || it->second < Limits::kMaxOwnerQuestions;
}

std::unique_ptr<CConfigBusiness::PendingReply> CConfigBusiness::take_pending(uint64_t serial) {
    Platform::CMutexGuard guard(m_pending_mutex);
    auto it = m_pending_replies.find(serial);
    if (it == m_pending_replies.end()) return nullptr;
    std::unique_ptr<PendingReply> pending = std::move(it->second);
    m_pending_replies.erase(it);
    auto count = m_questions_per_owner.find(pending->owner);
    if (count != m_questions_per_owner.end() && --count->second == 0) m_questions_per_owner.erase(count);
    return pending;
}

void CConfigBusiness::callback(uint32_t status, DBus::CDBusMessage* message, void* user_data) {
    const uint64_t serial = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(user_data));
    std::unique_ptr<PendingReply> pending = take_pending(serial);
    if (!pending) return;
    // The bus layer gave up on the call (disconnecting): the caller runs into its own time limit.
    if (status != 0) return;

    int32_t code = kNotEvaluated;  // an error reply keeps this
    if (message != nullptr && message->get_type() == DBUS_MESSAGE_TYPE_METHOD_RETURN && !message->get_int32(code)) {
        code = kOwnerNoCode;
    }
    pending->reply.set_int32(code);
    if (!send_dbus_reply(pending->reply)) QLOG(3, "callback, send dbud reply fail.");
    if (code != 0) return;
    if (!m_file_manager.set_config(pending->key, pending->value)) QLOG(3, "callback, set_config fail.");
    notify_to_observer(pending->key, pending->value);
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
