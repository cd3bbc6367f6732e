// CConfigClient: the configuration service's methods as cmctl calls them, each a blocking call on
// "iot.dmp.configmanager" that comes back as one CAnswer, whatever went wrong on the way.
#ifndef CMCTL_CONFIG_CLIENT_H
#define CMCTL_CONFIG_CLIENT_H

#include <cstdint>
#include <string>

#include "bus_connection.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

constexpr char kServiceName[] = "iot.dmp.configmanager";
constexpr char kServicePath[] = "/iot/dmp/configmanager";

// Subscription types of subscribe_config.
constexpr int32_t kOwner = 0;
constexpr int32_t kObserver = 1;

struct CAnswer {
    enum class Kind {
        Code,       // the service answered with a result code (0: success)
        Closed,     // the service stopped while the request waited for the key's owner
        NoService,  // nobody owns the service's name on this bus
        Timeout,    // no answer within the time-out
        Lost,       // the bus connection broke
        BusError,   // some other error reply
        Malformed,  // a method return of an unexpected shape
    };
    Kind kind = Kind::Malformed;
    int32_t code = 0;
    std::string text;  // the value or query result; the bus's words for BusError and Lost
    uint64_t ts = 0;   // get_config_with_ts only

    bool ok() const { return kind == Kind::Code && code == 0; }
};

class CConfigClient {
public:
    CConfigClient(CBusConnection& bus, int timeout_ms) : m_bus(bus), m_timeout_ms(timeout_ms) {}

    CAnswer get(const std::string& key);
    CAnswer get_with_ts(const std::string& key);
    CAnswer set(const std::string& key, const std::string& value);
    // ts 0: the service takes the current time.
    CAnswer set_with_ts(const std::string& key, const std::string& value, uint64_t ts);
    CAnswer batch_with_ts(const std::string& pattern);
    CAnswer keylist(const std::string& pattern);
    CAnswer subscribe(const std::string& name, const std::string& key, int32_t type);
    CAnswer unsubscribe(const std::string& name, const std::string& key);

    int timeout_ms() const { return m_timeout_ms; }

private:
    CAnswer call(DBusMessage* request);

    CBusConnection& m_bus;
    int m_timeout_ms;
};

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
