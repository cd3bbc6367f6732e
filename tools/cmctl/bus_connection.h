// CBusConnection: cmctl's one private connection to the bus, on raw libdbus. Blocking calls for the
// configuration service's methods, and for watch and own a well-known name of their own and the
// socket to wait on for the notify_config calls the service sends to it.
#ifndef CMCTL_BUS_CONNECTION_H
#define CMCTL_BUS_CONNECTION_H

#include <dbus/dbus.h>

#include <string>

#include "quorel/keychain/keychain_wire.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

// The project's RAII for libdbus errors, shared with the keychain service and client.
using Keychain::CBusError;

// Why a blocking call came back without a method return.
enum class CallFailure { None, NoService, Timeout, Disconnected, ErrorReply };

class CBusConnection {
public:
    CBusConnection() = default;
    CBusConnection(const CBusConnection&) = delete;
    CBusConnection& operator=(const CBusConnection&) = delete;

    // Opens and registers the connection; false with the reason in error.
    bool open(const std::string& address, std::string& error);

    // Sends request and waits up to timeout_ms for its method return (the caller unrefs it). On
    // null, failure says why and detail holds the bus's own words.
    DBusMessage* call(DBusMessage* request, int timeout_ms, CallFailure& failure, std::string& detail);

    // Takes name as its only owner (no queueing, no replacing); false with the reason in error.
    bool request_name(const std::string& name, std::string& error);
    void release_name(const std::string& name);

    // Sends without waiting (replies to incoming calls); false when out of memory.
    bool send(DBusMessage* message);
    void flush();

    // Reads and writes what is ready without blocking; false once the bus is gone.
    bool read_write_ready();
    // The next queued incoming message (the caller unrefs it), or null.
    DBusMessage* pop();
    // The socket to poll for incoming traffic, -1 if there is none.
    int socket() const;

    DBusConnection* get() const { return m_connection.get(); }

private:
    Keychain::ConnectionPtr m_connection;
};

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
