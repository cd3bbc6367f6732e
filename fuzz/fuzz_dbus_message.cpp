// The bus layer's typed readers over any message a peer can send. A message arrives marshalled;
// libdbus validates it while demarshalling, and the readers must then hold up whatever the
// argument types and their order: a reader asked for the wrong type answers false, never misuses
// libdbus (whose failed checks abort the process).
//
// Input: four bytes naming eight reads (one per nibble, low nibble first), then the marshalled
// message.
#include <dbus/dbus.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "fuzz_support.h"
#include "quorel/dbus/dbus_message.h"

namespace {

using Quorel::Iot::DBus::CDBusMethodCall;
using Quorel::Iot::Fuzz::fail;
using Quorel::Iot::Fuzz::is_dbus_text;

constexpr size_t kOpBytes = 4;

void check_text(const char* what, const std::string& text) {
    if (!is_dbus_text(text)) fail(what, text);
}

void read_header(const CDBusMethodCall& call) {
    check_text("member is not D-Bus text", call.get_member());
    check_text("path is not D-Bus text", call.get_path());
    check_text("interface is not D-Bus text", call.get_interface());
    check_text("sender is not D-Bus text", call.get_sender());
    check_text("error name is not D-Bus text", call.get_error_name());
    (void)call.get_type();
    (void)call.get_serial();
    (void)call.get_reply_serial();
}

void read_array(CDBusMethodCall& call) {
    uint8_t* bytes = nullptr;
    int32_t length = 0;
    if (!call.get_array(bytes, length)) return;
    if (bytes == nullptr || length <= 0) fail("get_array succeeded without data", std::to_string(length));
    // Touch every byte, so ASan sees a copy shorter than announced.
    volatile uint8_t sum = 0;
    for (int32_t i = 0; i < length; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
    (void)sum;
    free(bytes);
}

void run_op(CDBusMethodCall& call, unsigned op) {
    switch (op % 8) {
        case 0: {
            std::string text;
            if (call.get_string(text)) check_text("get_string answer is not D-Bus text", text);
            break;
        }
        case 1: {
            int32_t number = 0;
            call.get_int32(number);
            break;
        }
        case 2: {
            uint64_t number = 0;
            call.get_uint64(number);
            break;
        }
        case 3:
            read_array(call);
            break;
        case 4:
            // Assignment restarts reading, even onto itself: callers read a reply twice that way.
            call = *&call;
            break;
        case 5: {
            // A copy shares the message but reads on its own.
            CDBusMethodCall copy(call);
            std::string text;
            if (copy.get_string(text)) check_text("get_string answer of a copy is not D-Bus text", text);
            break;
        }
        case 6:
            read_header(call);
            break;
        default: {
            std::string text;
            int32_t number = 0;
            if (!call.get_string(text)) call.get_int32(number);
            break;
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < kOpBytes) return 0;
    const char* wire = reinterpret_cast<const char*>(data + kOpBytes);
    const int wire_size = static_cast<int>(size - kOpBytes);
    (void)dbus_message_demarshal_bytes_needed(wire, wire_size);

    DBusError error;
    dbus_error_init(&error);
    DBusMessage* message = dbus_message_demarshal(wire, wire_size, &error);
    if (message == nullptr) {
        if (!dbus_error_is_set(&error)) fail("demarshal failed without an error", "");
        dbus_error_free(&error);
        return 0;
    }
    {
        CDBusMethodCall call(message);
        dbus_message_unref(message);
        for (size_t i = 0; i < kOpBytes; ++i) {
            run_op(call, data[i] & 0x0f);
            run_op(call, data[i] >> 4);
        }
        read_header(call);
    }
    return 0;
}
