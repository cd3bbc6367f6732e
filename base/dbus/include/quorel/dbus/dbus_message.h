// CDBusMessage: one libdbus message with strictly sequential typed readers and writers.
//
// Owns one counted reference to the message (or none: an empty holder, which answers every reader
// and writer with false). Copying or assigning shares the message by reference count and restarts
// reading at the first argument. Failures are reported as false, never thrown.
// Not thread-safe: one holder is used by one thread at a time.
#ifndef QUOREL_DBUS_DBUS_MESSAGE_H
#define QUOREL_DBUS_DBUS_MESSAGE_H

#include <dbus/dbus.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Quorel {
namespace Iot {
namespace DBus {

class CDBusMessage {
public:
    // Takes a reference to message (which may be null: an empty holder).
    explicit CDBusMessage(DBusMessage* message = nullptr);
    // A new bare message of the given libdbus type (DBUS_MESSAGE_TYPE_*).
    explicit CDBusMessage(int type);
    CDBusMessage(const CDBusMessage& other);
    CDBusMessage& operator=(const CDBusMessage& other);
    ~CDBusMessage();

    DBusMessage* get_message() const { return m_message; }
    bool empty() const { return m_message == nullptr; }
    int get_type() const;
    std::string get_path() const;
    std::string get_interface() const;
    std::string get_member() const;
    std::string get_sender() const;
    std::string get_error_name() const;
    uint32_t get_serial() const;
    uint32_t get_reply_serial() const;

    // Moves to the next argument and checks its type; a failed check still consumes it.
    bool get_next_iter(int type);
    bool get_string(std::string& value);
    bool get_int32(int32_t& value);
    bool get_uint64(uint64_t& value);
    // On success data is a malloc'ed copy the caller frees; an empty array is a failure.
    bool get_array(uint8_t*& data, int32_t& length);

    // False (and a level-3 line) for text that is not valid UTF-8: nothing is appended then.
    bool set_string(const std::string& value);
    bool set_int32(int32_t value);
    bool set_uint64(uint64_t value);
    bool set_array(const uint8_t* data, uint32_t length);

protected:
    // Takes over the caller's reference (a freshly created message); null leaves the holder empty.
    void adopt(DBusMessage* message);

private:
    void attach(DBusMessage* message);
    void reset_read();
    void init_append();
    // value points at the libdbus representation of the type (a const char* for a string).
    bool read_basic(int type, void* value);
    bool append_basic(int type, const void* value);

    DBusMessage* m_message;
    // Zero-filled at allocation. The read iterator is created by the first read and dropped by
    // assignment; the append iterator lives as long as the holder.
    // Held in place rather than allocated: two messages per request pass through here.
    DBusMessageIter m_read_iter{};
    bool m_read_started = false;
    DBusMessageIter m_append_iter{};
};

class CDBusMethodCall : public CDBusMessage {
public:
    using CDBusMessage::operator=;
    explicit CDBusMethodCall(DBusMessage* message);
    CDBusMethodCall();
    CDBusMethodCall(const std::string& destination, const std::string& path, const std::string& interface,
                    const std::string& method);
};

class CDBusMethodReturn : public CDBusMessage {
public:
    using CDBusMessage::operator=;
    explicit CDBusMethodReturn(DBusMessage* message);
    CDBusMethodReturn();
    // True for a method return, false for an error reply or an empty holder.
    bool is_method_return() const;
};

class CDBusSignal : public CDBusMessage {
public:
    using CDBusMessage::operator=;
    explicit CDBusSignal(DBusMessage* message);
    CDBusSignal();
    CDBusSignal(const std::string& path, const std::string& interface, const std::string& member);
};

}  // namespace DBus
}  // namespace Iot
}  // namespace Quorel

#endif
