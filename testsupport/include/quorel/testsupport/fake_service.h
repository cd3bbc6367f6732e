// CFakeService: a small real bus service on raw libdbus, for playing the gateway's other programs
// (keychain, MQTT bridge, watchdog, key owners and observers) in tests. It owns a bus name (or
// none: a plain client), answers method calls through per-member handlers on its own thread,
// records every call and signal it receives, and can make blocking calls and emit signals.
#ifndef QUOREL_TESTSUPPORT_FAKE_SERVICE_H
#define QUOREL_TESTSUPPORT_FAKE_SERVICE_H

#include <dbus/dbus.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Testing {

// One received message, its basic arguments rendered as text (integers in decimal).
struct CRecordedMessage {
    int type = 0;
    std::string path;
    std::string interface;
    std::string member;
    std::string sender;
    std::string destination;
    std::vector<std::string> args;
    std::string signature;
};

// Renders the basic arguments of message as text (strings as is, integers and booleans in decimal).
CRecordedMessage record_message(DBusMessage* message);

class CFakeService {
public:
    // Returns the reply to send (the service takes ownership), or null to send nothing.
    using Handler = std::function<DBusMessage*(DBusMessage* call)>;

    CFakeService(const std::string& address, const std::string& name);
    virtual ~CFakeService();
    CFakeService(const CFakeService&) = delete;
    CFakeService& operator=(const CFakeService&) = delete;

    // Connects, requests the name (unless empty) and starts the dispatch thread.
    bool start();
    void stop();

    // Register before start(), or at any time: handlers are looked up under a lock.
    void on(const std::string& member, Handler handler);
    // Also receive signals addressed to anyone (adds an eavesdrop-free match rule for signals).
    bool add_match(const std::string& rule);

    // Blocking call from a test thread once started; returns the reply or error reply (caller
    // unrefs) or null on timeout. The dispatch thread hands the reply over, since it pops every
    // message of the connection.
    DBusMessage* call(DBusMessage* request, int timeout_ms = 5000);
    bool send(DBusMessage* message);

    std::vector<CRecordedMessage> received() const;
    std::vector<CRecordedMessage> received(const std::string& member) const;
    size_t count(const std::string& member) const;
    bool wait_for_count(const std::string& member, size_t n,
                        std::chrono::milliseconds timeout = std::chrono::seconds(5)) const;
    void clear_received();

    const std::string& name() const { return m_name; }
    std::string unique_name() const;
    DBusConnection* connection() const { return m_connection; }

    // Convenience reply builders.
    static DBusMessage* reply_int(DBusMessage* call, int32_t value);
    static DBusMessage* reply_string(DBusMessage* call, const std::string& value);
    static DBusMessage* reply_error(DBusMessage* call, const std::string& name, const std::string& text);

private:
    void loop();

    std::string m_address;
    std::string m_name;
    DBusConnection* m_connection = nullptr;
    std::thread m_thread;
    std::atomic<bool> m_running{false};

    mutable std::mutex m_mutex;
    std::map<std::string, Handler> m_handlers;  // guarded by m_mutex
    std::vector<CRecordedMessage> m_received;   // guarded by m_mutex
    // Replies awaited by call(), by request serial; null until the reply arrives.
    std::map<uint32_t, DBusMessage*> m_awaited;  // guarded by m_mutex
    std::condition_variable m_reply_arrived;
};

// Builds a method call with string / int32 / uint64 arguments appended in order.
class CCallBuilder {
public:
    CCallBuilder(const std::string& destination, const std::string& path, const std::string& interface,
                 const std::string& member);
    ~CCallBuilder();
    CCallBuilder& str(const std::string& value);
    CCallBuilder& i32(int32_t value);
    CCallBuilder& u64(uint64_t value);
    // Hands the message over (caller unrefs); the builder is empty afterwards.
    DBusMessage* take();

private:
    DBusMessage* m_message;
    DBusMessageIter m_iter;
};

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
