// CFakeSubscriber: a key owner or observer of the configuration service played by a real bus
// service. It serves "notify_config" (s key, s value) only where the configuration service calls
// a subscriber: at the object path made from its bus name ("/" + name with "." → "/") and on the
// interface equal to its name; a call anywhere else is answered with UnknownMethod.
//
// By default it answers (int32 0). It can instead answer a chosen code, a reply without a leading
// int32, an error, nothing at all, or hold each call until the test answers it.
#ifndef QUOREL_TESTSUPPORT_FAKE_SUBSCRIBER_H
#define QUOREL_TESTSUPPORT_FAKE_SUBSCRIBER_H

#include <dbus/dbus.h>

#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

#include "quorel/testsupport/fake_service.h"

namespace Quorel {
namespace Iot {
namespace Testing {

class CFakeSubscriber : public CFakeService {
public:
    CFakeSubscriber(const std::string& address, const std::string& name);
    ~CFakeSubscriber() override;

    void answer_code(int32_t code);
    void answer_string(const std::string& text);  // a method return without a leading int32
    void answer_error(const std::string& error_name = "org.freedesktop.DBus.Error.Failed");
    void answer_nothing();
    // Keeps every call unanswered until answer_held; calls held so far stay held.
    void hold_answers();

    size_t held_count() const;
    // Answers the index-th held call (in arrival order) with code; false if there is none.
    bool answer_held(size_t index, int32_t code);

    // (key, value) of every notify_config received at the right path and interface.
    std::vector<std::pair<std::string, std::string>> notifications() const;
    bool wait_for_notifications(size_t n) const;

    static std::string object_path_of(const std::string& name);

private:
    enum class Mode { Code, String, Error, Nothing, Hold };
    DBusMessage* handle_notify(DBusMessage* call);

    mutable std::mutex m_answer_mutex;
    Mode m_mode = Mode::Code;                                          // guarded by m_answer_mutex
    int32_t m_code = 0;                                                // guarded by m_answer_mutex
    std::string m_text;                                                // guarded by m_answer_mutex
    std::vector<DBusMessage*> m_held;                                  // guarded by m_answer_mutex
    std::vector<std::pair<std::string, std::string>> m_notifications;  // guarded by m_answer_mutex
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
