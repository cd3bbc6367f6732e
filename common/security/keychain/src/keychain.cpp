#include "quorel/keychain/keychain.h"

#include <dbus/dbus.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/mman.h>
#include <sys/shm.h>
#include <unistd.h>

#include <initializer_list>
#include <memory>
#include <mutex>
#include <vector>

#include "quorel/keychain/keychain_wire.h"
#include "quorel/log/log.h"

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/common/security/keychain/src/keychain";

// Every message names the public function it belongs to, not the helper that logs it.
#define KC_LOG(function, ...) log_print(3, "color", "tag", kLogFile, (function), __LINE__, __VA_ARGS__)

using namespace Quorel::Iot::Keychain;

struct MessageUnref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<DBusMessage, MessageUnref>;

// Segments with at least this much to copy in are populated before the copy.
constexpr size_t kPopulateFromBytes = 16 * 1024;

// --- process-wide client state ---
// The mutex lives as long as the process rather than from kc_init to kc_deinit, so a call made
// before kc_init or after kc_deinit still finds a valid lock and answers "please first call kc_init".
std::mutex g_lock;
ConnectionPtr g_connection;  // guarded by g_lock

// Marks a freshly created segment for removal when the call ends, whatever path it takes. Declared
// before the CAttachedSegment of the same call, so the segment is detached first, then removed.
class CSegmentRemoval {
public:
    explicit CSegmentRemoval(int id) : m_id(id) {}
    ~CSegmentRemoval() {
        if (m_id >= 0) shmctl(m_id, IPC_RMID, nullptr);
    }
    CSegmentRemoval(const CSegmentRemoval&) = delete;
    CSegmentRemoval& operator=(const CSegmentRemoval&) = delete;

    int id() const { return m_id; }

private:
    int m_id;
};

struct CPart {
    const void* data;
    size_t size;
};

// What sets the calls apart besides their parts and arguments.
struct CCallShape {
    const char* function;  // public function named in the log lines
    const char* member;
    bool with_exe_path;      // kcAddKey and kcGetKey lead with the executable path
    bool mmap_errno_logged;  // kc_add_item's attach message carries no errno
    // The result when no usable answer came back (failed bus exchange, reply without its
    // integers): 0 for the historical calls, whose callers rely on it.
    int32_t unanswered;
};

// One item call: builds the segment from the parts (after the executable path, if the call carries
// one) followed by an output area of out_capacity bytes, sends the segment id and args, and hands
// the reply with the output area to decode while the segment is still attached. A failed bus
// exchange returns shape.unanswered without calling decode.
template <typename Decode>
int32_t exchange(const CCallShape& shape, const std::vector<CPart>& parts, uint8_t* caller_out, uint32_t out_capacity,
                 std::initializer_list<int32_t> args, Decode decode) {
    MessagePtr call(dbus_message_new_method_call(kServiceName, kObjectPath, kInterface, shape.member));
    if (!call) {
        KC_LOG(shape.function, "new method call failed\n");
        return KC_ERR_NOT_INITIALIZED;
    }

    // One byte more than readlink may fill, so the path is always NUL-terminated.
    char exe_path[4097] = {};
    size_t size = out_capacity;
    if (shape.with_exe_path) {
        const ssize_t read = readlink("/proc/self/exe", exe_path, 4096);
        if (read <= 0) {
            KC_LOG(shape.function, "readlink fail\n");
            return KC_ERR_NOT_INITIALIZED;
        }
        size += static_cast<size_t>(read) + 1;
    }
    for (const CPart& part : parts) size += part.size;

    CSegmentRemoval removal(shmget(IPC_PRIVATE, size, 0666));
    if (removal.id() < 0) {
        KC_LOG(shape.function, "shm create failed errno: %d\n", errno);
        return KC_ERR_SHM;
    }
    CAttachedSegment segment(removal.id());
    if (!segment.attached()) {
        if (shape.mmap_errno_logged) {
            KC_LOG(shape.function, "shm mmap failed errno %d\n", errno);
        } else {
            KC_LOG(shape.function, "shm mmap failed\n");
        }
        return KC_ERR_SHM;
    }

    // The pages the copy below fills are faulted in with one call rather than one fault each, which
    // for a large store's document costs more than the copy; a kernel without this call leaves
    // them to the copy, as before.
    const size_t input_size = size - out_capacity;
    if (input_size >= kPopulateFromBytes) madvise(segment.data(), input_size, MADV_POPULATE_WRITE);

    uint8_t* cursor = segment.data();
    if (shape.with_exe_path) {
        const size_t path_size = strlen(exe_path) + 1;
        memcpy(cursor, exe_path, path_size);
        cursor += path_size;
    }
    for (const CPart& part : parts) {
        memcpy(cursor, part.data, part.size);
        cursor += part.size;
    }
    uint8_t* const output_area = cursor;
    if (caller_out != nullptr) memset(caller_out, 0, out_capacity);

    int32_t segment_id = removal.id();
    DBusMessageIter iter;
    dbus_message_iter_init_append(call.get(), &iter);
    dbus_message_iter_append_basic(&iter, DBUS_TYPE_INT32, &segment_id);
    for (int32_t arg : args) dbus_message_iter_append_basic(&iter, DBUS_TYPE_INT32, &arg);

    CBusError error;
    MessagePtr reply;
    {
        std::unique_lock<std::mutex> lock(g_lock);
        if (!g_connection) {
            lock.unlock();
            KC_LOG(shape.function, "please first call kc_init\n");
            return KC_ERR_NOT_INITIALIZED;
        }
        reply.reset(dbus_connection_send_with_reply_and_block(g_connection.get(), call.get(), -1, error.get()));
    }
    if (error.is_set() || !reply) {
        KC_LOG(shape.function, "dbus error (%s)\n", error.message());
        return shape.unanswered;
    }
    return decode(reply.get(), output_area);
}

// Reads the reply's int32 values in order; false (nothing trusted) if any is missing.
bool read_reply(DBusMessage* reply, int32_t* first, int32_t* second = nullptr, int32_t* third = nullptr) {
    if (second == nullptr) return dbus_message_get_args(reply, nullptr, DBUS_TYPE_INT32, first, DBUS_TYPE_INVALID);
    if (third == nullptr) {
        return dbus_message_get_args(reply, nullptr, DBUS_TYPE_INT32, first, DBUS_TYPE_INT32, second,
                                     DBUS_TYPE_INVALID);
    }
    return dbus_message_get_args(reply, nullptr, DBUS_TYPE_INT32, first, DBUS_TYPE_INT32, second, DBUS_TYPE_INT32,
                                 third, DBUS_TYPE_INVALID);
}

// A length the service put in an answer, as the caller may see it: a negative one tells no size.
uint32_t reported_size(int32_t length) { return length < 0 ? 0 : static_cast<uint32_t>(length); }

// Whether an answer of 0 with this length is one the output area can hold. One that is not would
// have the caller read past its buffer, so it becomes a short buffer.
bool fits_capacity(int32_t length, uint32_t capacity) {
    return length >= 0 && static_cast<uint32_t>(length) <= capacity;
}

int32_t add_item(const CCallShape& shape, const char* name, const uint8_t* data, uint32_t len, uint32_t item_type) {
    if (name == nullptr || data == nullptr || len == 0 || item_type > 3) {
        KC_LOG(shape.function, "bad null params\n");
        return KC_ERR_BAD_PARAMS;
    }
    return exchange(shape, {CPart{name, strlen(name) + 1}, CPart{data, len}}, nullptr, 0,
                    {static_cast<int32_t>(item_type), static_cast<int32_t>(len)},
                    [&shape](DBusMessage* reply, const uint8_t*) {
                        int32_t result = 0;
                        return read_reply(reply, &result) ? result : shape.unanswered;
                    });
}

// kc_encrypt_data and kc_decrypt_data differ only in their layout: input first or name first.
int32_t transform(const CCallShape& shape, bool data_first, const uint8_t* data, uint32_t data_len, const char* name,
                  uint8_t* out, uint32_t* out_len) {
    if (data == nullptr || name == nullptr || out_len == nullptr || data_len == 0) return KC_ERR_BAD_PARAMS;
    // Zeroing and filling out needs a buffer whenever a capacity is offered.
    if (out == nullptr && *out_len != 0) return KC_ERR_BAD_PARAMS;
    const uint32_t capacity = *out_len;
    const CPart data_part{data, data_len};
    const CPart name_part{name, strlen(name) + 1};
    const std::vector<CPart> parts =
        data_first ? std::vector<CPart>{data_part, name_part} : std::vector<CPart>{name_part, data_part};
    return exchange(shape, parts, out, capacity, {static_cast<int32_t>(data_len), static_cast<int32_t>(capacity)},
                    [&](DBusMessage* reply, const uint8_t* output) {
                        int32_t result = 0;
                        int32_t length = 0;
                        if (!read_reply(reply, &result, &length)) return shape.unanswered;
                        *out_len = reported_size(length);
                        if (result == KC_SUCCESS && fits_capacity(length, capacity)) {
                            if (*out_len != 0) memcpy(out, output, *out_len);
                            return KC_SUCCESS;
                        }
                        if (result == KC_SUCCESS || result == KC_ERR_SHORT_BUFFER) {
                            KC_LOG(shape.function, "short buffer need %d\n", length);
                            return KC_ERR_SHORT_BUFFER;
                        }
                        return result;
                    });
}

}  // namespace

extern "C" int32_t kc_init(void) {
    dbus_threads_init_default();
    std::lock_guard<std::mutex> lock(g_lock);
    CBusError error;
    g_connection.reset(dbus_connection_open_private(bus_address().c_str(), error.get()));
    if (!g_connection) {
        if (error.is_set()) printf("%s(%d) dbus error (%s)\n", "kc_init", 27, error.message());
        fflush(stdout);
        return KC_ERR_NOT_INITIALIZED;
    }
    dbus_connection_set_exit_on_disconnect(g_connection.get(), FALSE);
    // A connection that opened but could not register stays stored, as it always has.
    const bool registered = dbus_bus_register(g_connection.get(), error.get());
    if (error.is_set()) printf("%s(%d) dbus error (%s)\n", "kc_init", 32, error.message());
    fflush(stdout);
    return registered ? KC_SUCCESS : KC_ERR_NOT_INITIALIZED;
}

extern "C" void kc_deinit(void) {
    std::lock_guard<std::mutex> lock(g_lock);
    g_connection.reset();
}

extern "C" int32_t kc_add_item(const char* name, const uint8_t* data, uint32_t len, uint32_t item_type) {
    static const CCallShape kShape{"kc_add_item", kAddKey, true, false, KC_SUCCESS};
    return add_item(kShape, name, data, len, item_type);
}

extern "C" int32_t kc_add_item_checked(const char* name, const uint8_t* data, uint32_t len, uint32_t item_type) {
    static const CCallShape kShape{"kc_add_item_checked", kAddKey, true, false, KC_ERR_BUS};
    return add_item(kShape, name, data, len, item_type);
}

extern "C" int32_t kc_get_item(const char* name, uint8_t* buf, uint32_t* len, int32_t* item_type) {
    static const CCallShape kShape{"kc_get_item", kGetKey, true, true, KC_SUCCESS};
    if (name == nullptr || len == nullptr || item_type == nullptr || (buf == nullptr && *len != 0)) {
        KC_LOG(kShape.function, "bad null params\n");
        return KC_ERR_BAD_PARAMS;
    }
    const uint32_t capacity = *len;
    return exchange(kShape, {CPart{name, strlen(name) + 1}}, buf, capacity, {static_cast<int32_t>(capacity)},
                    [&](DBusMessage* reply, const uint8_t* output) {
                        int32_t result = 0;
                        int32_t length = 0;
                        int32_t type = 0;
                        if (!read_reply(reply, &result, &length, &type)) return kShape.unanswered;
                        *item_type = type;
                        if (result == KC_SUCCESS && fits_capacity(length, capacity)) {
                            *len = reported_size(length);
                            if (*len != 0) memcpy(buf, output, *len);
                            return KC_SUCCESS;
                        }
                        if (result == KC_SUCCESS || result == KC_ERR_SHORT_BUFFER) {
                            KC_LOG(kShape.function, "short buffer %d : %d\n", static_cast<int32_t>(capacity), length);
                            *len = reported_size(length);
                            return KC_ERR_SHORT_BUFFER;
                        }
                        return result;
                    });
}

extern "C" int32_t kc_encrypt_data(const uint8_t* data, uint32_t data_len, const char* name, uint8_t* out,
                                   uint32_t* out_len) {
    static const CCallShape kShape{"kc_encrypt_data", kEncryptData, false, true, KC_SUCCESS};
    return transform(kShape, true, data, data_len, name, out, out_len);
}

extern "C" int32_t kc_decrypt_data(const char* name, const uint8_t* data, uint32_t data_len, uint8_t* out,
                                   uint32_t* out_len) {
    static const CCallShape kShape{"kc_decrypt_data", kDecryptData, false, true, KC_SUCCESS};
    return transform(kShape, false, data, data_len, name, out, out_len);
}
