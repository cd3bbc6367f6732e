// The keychain wire protocol as both ends see it: bus addressing, the bus address of the gateway,
// RAII for the libdbus handles both ends hold, and the service's side of the shared-memory transfers (attaching a
// client's segment, reading its parts, answering kcGetKey).
//
// Header-only on purpose: the development keychain service and the test fake speak the protocol
// without linking the client library. All functions run on the caller's thread; a
// CAttachedSegment belongs to one request and must be gone before the reply is sent, because the
// client removes the segment as soon as it has the answer.
#ifndef QUOREL_KEYCHAIN_KEYCHAIN_WIRE_H
#define QUOREL_KEYCHAIN_KEYCHAIN_WIRE_H

#include <dbus/dbus.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/shm.h>

#include <initializer_list>
#include <memory>
#include <optional>
#include <string>

#include "quorel/keychain/keychain.h"

namespace Quorel {
namespace Iot {
namespace Keychain {

constexpr char kServiceName[] = "iot.gateway.security.keychain";
constexpr char kObjectPath[] = "/iot/gateway/security/keychain";
constexpr char kInterface[] = "iot.gateway.security.keychain.sst";
constexpr char kAddKey[] = "kcAddKey";
constexpr char kGetKey[] = "kcGetKey";
constexpr char kEncryptData[] = "kcEncryptData";
constexpr char kDecryptData[] = "kcDecryptData";

// Our own services answer kcGetKey for an absent item with this code. The client passes it through
// unchanged; the store treats any first answer other than KC_ERR_SHORT_BUFFER as "no item".
constexpr int32_t kResultNotFound = -65534;

constexpr char kDefaultBusAddress[] = "unix:path=/tmp/var/run/mbusd/mbusd_socket";
constexpr char kBusAddressVariable[] = "CONFIG_MANAGER_BUS_ADDRESS";

// The gateway's bus, unless a developer or a test points us elsewhere.
inline std::string bus_address() {
    const char* overridden = getenv(kBusAddressVariable);
    return overridden != nullptr && overridden[0] != '\0' ? overridden : kDefaultBusAddress;
}

// A private connection, closed then released when dropped.
struct CConnectionCloser {
    void operator()(DBusConnection* connection) const {
        dbus_connection_close(connection);
        dbus_connection_unref(connection);
    }
};
using ConnectionPtr = std::unique_ptr<DBusConnection, CConnectionCloser>;

// A DBusError freed on every path.
class CBusError {
public:
    CBusError() { dbus_error_init(&m_error); }
    ~CBusError() { dbus_error_free(&m_error); }
    CBusError(const CBusError&) = delete;
    CBusError& operator=(const CBusError&) = delete;

    DBusError* get() { return &m_error; }
    bool is_set() const { return dbus_error_is_set(&m_error); }
    const char* message() const { return is_set() ? m_error.message : "unknown"; }

private:
    DBusError m_error;
};

// A System V segment attached for the lifetime of this object (detached on destruction).
class CAttachedSegment {
public:
    explicit CAttachedSegment(int id) {
        void* address = shmat(id, nullptr, 0);
        if (address == reinterpret_cast<void*>(-1)) return;
        struct shmid_ds info;
        if (shmctl(id, IPC_STAT, &info) != 0) {
            shmdt(address);
            return;
        }
        m_data = static_cast<uint8_t*>(address);
        m_size = info.shm_segsz;
    }
    ~CAttachedSegment() {
        if (m_data != nullptr) shmdt(m_data);
    }
    CAttachedSegment(const CAttachedSegment&) = delete;
    CAttachedSegment& operator=(const CAttachedSegment&) = delete;

    bool attached() const { return m_data != nullptr; }
    uint8_t* data() const { return m_data; }
    size_t size() const { return m_size; }

    // Reads a NUL-terminated string at offset (without its NUL) and moves offset past the NUL.
    // False when no NUL comes before the end of the segment.
    bool read_string(size_t& offset, std::string& out) const {
        if (offset >= m_size) return false;
        const void* nul = memchr(m_data + offset, '\0', m_size - offset);
        if (nul == nullptr) return false;
        const size_t length = static_cast<const uint8_t*>(nul) - (m_data + offset);
        out.assign(reinterpret_cast<const char*>(m_data + offset), length);
        offset += length + 1;
        return true;
    }
    // Reads length bytes at offset and moves offset past them; false when they run off the end.
    bool read_bytes(size_t& offset, size_t length, std::string& out) const {
        if (!fits(offset, length)) return false;
        out.assign(reinterpret_cast<const char*>(m_data + offset), length);
        offset += length;
        return true;
    }
    bool fits(size_t offset, size_t length) const { return offset <= m_size && length <= m_size - offset; }

private:
    uint8_t* m_data = nullptr;
    size_t m_size = 0;
};

// A method return carrying the given int32 values in order (null when out of memory).
inline DBusMessage* reply_ints(DBusMessage* call, std::initializer_list<int32_t> values) {
    DBusMessage* reply = dbus_message_new_method_return(call);
    if (reply == nullptr) return nullptr;
    DBusMessageIter iter;
    dbus_message_iter_init_append(reply, &iter);
    for (int32_t value : values) {
        if (!dbus_message_iter_append_basic(&iter, DBUS_TYPE_INT32, &value)) {
            dbus_message_unref(reply);
            return nullptr;
        }
    }
    return reply;
}

// kcAddKey: segment id, item type, data length; the segment holds path, name and data.
struct CAddRequest {
    std::string exe_path;
    std::string name;
    std::string bytes;
    int32_t type = 0;
};

// False on a call whose arguments or segment do not match the layout.
inline bool read_add_request(DBusMessage* call, CAddRequest& request) {
    int32_t id = -1;
    int32_t length = -1;
    if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_INT32, &id, DBUS_TYPE_INT32, &request.type, DBUS_TYPE_INT32,
                               &length, DBUS_TYPE_INVALID) ||
        length < 0) {
        return false;
    }
    CAttachedSegment segment(id);
    size_t offset = 0;
    return segment.attached() && segment.read_string(offset, request.exe_path) &&
           segment.read_string(offset, request.name) && segment.read_bytes(offset, length, request.bytes);
}

// kcGetKey: segment id, capacity; the segment holds path, name and the output area. The segment
// stays attached until the request is answered and destroyed.
class CGetRequest {
public:
    // False on a call whose arguments or segment do not match the layout.
    bool read(DBusMessage* call) {
        int32_t id = -1;
        if (!dbus_message_get_args(call, nullptr, DBUS_TYPE_INT32, &id, DBUS_TYPE_INT32, &m_capacity,
                                   DBUS_TYPE_INVALID) ||
            m_capacity < 0) {
            return false;
        }
        m_segment.emplace(id);
        size_t offset = 0;
        if (!m_segment->attached() || !m_segment->read_string(offset, m_exe_path) ||
            !m_segment->read_string(offset, m_name) || !m_segment->fits(offset, m_capacity)) {
            return false;
        }
        m_output_offset = offset;
        return true;
    }

    const std::string& exe_path() const { return m_exe_path; }
    const std::string& name() const { return m_name; }
    int32_t capacity() const { return m_capacity; }

    // The answer for an item (null bytes: absent): not found, short buffer with the size needed,
    // or the bytes copied into the output area with result 0.
    DBusMessage* answer(DBusMessage* call, const std::string* bytes, int32_t type) {
        if (bytes == nullptr) return reply_ints(call, {kResultNotFound, 0, 0});
        const int32_t length = static_cast<int32_t>(bytes->size());
        if (!put_output(*bytes)) return reply_ints(call, {KC_ERR_SHORT_BUFFER, length, type});
        return reply_ints(call, {KC_SUCCESS, length, type});
    }
    // Copies bytes into the output area; false, with nothing written, when they exceed the capacity.
    bool put_output(const std::string& bytes) {
        if (bytes.size() > static_cast<size_t>(m_capacity)) return false;
        memcpy(m_segment->data() + m_output_offset, bytes.data(), bytes.size());
        return true;
    }

private:
    std::optional<CAttachedSegment> m_segment;
    std::string m_exe_path;
    std::string m_name;
    int32_t m_capacity = 0;
    size_t m_output_offset = 0;
};

}  // namespace Keychain
}  // namespace Iot
}  // namespace Quorel

#endif
