// CBusClient: a plain client connection for calling services from the test thread.
//
// It has no dispatch thread of its own: replies are read only by the thread that waits for them,
// so a blocking call cannot lose its reply to a concurrent reader. Calls can also be sent first
// and collected later, to keep several requests waiting at once. Error replies come back as
// messages (type DBUS_MESSAGE_TYPE_ERROR) rather than being folded into a failure.
// One thread at a time.
#ifndef QUOREL_TESTSUPPORT_BUS_CLIENT_H
#define QUOREL_TESTSUPPORT_BUS_CLIENT_H

#include <dbus/dbus.h>

#include <string>
#include <vector>

#include "quorel/testsupport/fake_service.h"

namespace Quorel {
namespace Iot {
namespace Testing {

class CBusClient {
public:
    explicit CBusClient(const std::string& address);
    ~CBusClient();
    CBusClient(const CBusClient&) = delete;
    CBusClient& operator=(const CBusClient&) = delete;

    bool connect();
    void close();

    // Sends the built call and returns a ticket for collect; the call times out after timeout_ms.
    size_t send_call(CCallBuilder& builder, int timeout_ms = 5000);
    // Waits for the answer to a ticket; type 0 when none came (timeout, or a bad ticket).
    CRecordedMessage collect(size_t ticket);
    // send_call + collect.
    CRecordedMessage call(CCallBuilder& builder, int timeout_ms = 5000);
    // Error name of the last collected error reply ("" after any other answer).
    const std::string& last_error_name() const { return m_last_error_name; }

    std::string unique_name() const;

private:
    std::string m_address;
    DBusConnection* m_connection = nullptr;
    std::vector<DBusPendingCall*> m_pending;
    std::string m_last_error_name;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
