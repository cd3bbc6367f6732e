// CSubscriberSession: cmctl as a subscriber of the configuration service, for watch and own.
//
// It takes a well-known bus name, subscribes it to the keys, and serves the service's
// notify_config calls at the object path made from the name ("/" + name, "." → "/") on the
// interface equal to the name, until a stop signal, the listener or the bus ends it. Every
// notify_config gets an answer: an owner that never answers would hold every set of its key.
// finish() unsubscribes each key it subscribed before it gives the name up, and answers what
// arrived in the meantime, so neither the subscription table nor a setter is left waiting.
//
// One thread: the bus is read between the listener's calls, which must not block.
#ifndef CMCTL_SUBSCRIBER_SESSION_H
#define CMCTL_SUBSCRIBER_SESSION_H

#include <dbus/dbus.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "context.h"
#include "stop_signals.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

// One notify_config call, waiting for its answer.
class CQuestion {
public:
    CQuestion(DBusMessage* call, std::string key, std::string value, uint64_t arrived_ms);

    DBusMessage* call() const { return m_call.get(); }
    const std::string& key() const { return m_key; }
    const std::string& value() const { return m_value; }
    uint64_t arrived_ms() const { return m_arrived_ms; }

private:
    std::shared_ptr<DBusMessage> m_call;
    std::string m_key;
    std::string m_value;
    uint64_t m_arrived_ms;
};

class CSubscriberSession {
public:
    // What watch and own do with the calls.
    class CListener {
    public:
        virtual ~CListener() = default;
        // A change arrived: answer it through session.answer now, or keep it and answer later.
        virtual void on_question(CSubscriberSession& session, const CQuestion& question) = 0;
        // The input descriptor given to run is readable. False: stop.
        virtual bool on_input(CSubscriberSession& session) {
            (void)session;
            return true;
        }
        // The session ends: answer every question still kept.
        virtual void on_closing(CSubscriberSession& session) { (void)session; }
    };

    // The name under which a subscriber can be called: a well-known name whose dotted form is a
    // valid interface and object path.
    static bool is_callable_name(const std::string& name);
    static std::string object_path_of(const std::string& name);

    CSubscriberSession(CContext& context, std::string name, int32_t type, CListener& listener);

    // Takes the name and subscribes it to each key; on a failure undoes what it did. Exit status.
    int start(const std::vector<std::string>& keys);
    // Serves calls until a stop signal, the listener, a failure or the loss of the bus. Exit status:
    // kExitOk when stopped by a signal or by the listener without a failure.
    int run(CStopSignals& signals, int input_fd);
    // Unsubscribes, answers what is left, gives the name up. Exit status.
    int finish();

    bool answer(const CQuestion& question, int32_t code);
    // Ends run after the current call, with status.
    void request_stop(int status);
    bool closing() const { return m_closing; }
    const std::string& name() const { return m_name; }

private:
    void dispatch_queued();
    void handle_call(DBusMessage* call);

    CContext& m_context;
    std::string m_name;
    std::string m_path;
    int32_t m_type;
    CListener& m_listener;
    std::vector<std::string> m_subscribed;
    bool m_have_name = false;
    bool m_closing = false;
    bool m_lost = false;
    bool m_stop_requested = false;
    int m_stop_status = 0;
};

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
