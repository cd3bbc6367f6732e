// The cloud shadow adapter's handling of documents from the cloud, with the set_config calls it
// would send to the configuration service captured instead. Whatever a document holds, the adapter
// may only ever write the seven synchronised keys, with texts that can travel as D-Bus strings.
//
// Input: byte 0 says which set_config calls fail (bit i for the calls i, i + 8, ...: the service's
// refusal code instead of 0). Then NUL-separated records, each an operation byte and its text:
//   0 a document on the shadow topic          4 a document, then a shadow pass
//   1 a shadow pass                           5 the request for the whole shadow
//   2 gw_vexa_serialNumber changed to text    6 the local shadow reset (as at start)
//   3 gw_orlo_reply changed to text           7 a shadow pass through run_shadow_pass
// Texts arrive as D-Bus strings, so a record whose text is not one is skipped. A shadow pass runs
// only when a document is counted, so it never waits.
//
// Nothing is caught: the adapter's bus handlers catch as a last resort, but a notification that
// throws there goes unanswered and a document that throws is lost without its log line, so an
// exception leaving these calls is a finding.
#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "config_adapter_core.h"
#include "fuzz_support.h"
#include "quorel/dbus/dbus_server.h"

namespace {

using namespace Quorel::Iot;
using Configmanager::CAdapterCore;
using Fuzz::fail;
using Fuzz::is_dbus_text;

constexpr size_t kMaxRecords = 64;
constexpr int32_t kCodeRefused = 100101;
constexpr const char kGetTopic[] = "/shadow/get/pk/dn";
constexpr const char kUpdateTopic[] = "/shadow/update/pk/dn";
constexpr const char* kSyncedKeys[] = {
    "gw_vexa_accessKey", "gw_vexa_secretKey", "gw_vexa_switch", "gw_orlo_logStore",
    "gw_orlo_project",   "gw_orlo_level",     "gw_orlo_switch",
};

// The adapter's gate refuses everything without a server. This one is never connected, so the
// adapter's publications fail with the handle's -1 (and are logged), which the adapter tolerates.
class CIdleServer : public DBus::CDBusServer {
public:
    CIdleServer() : DBus::CDBusServer("unix:path=/nonexistent/fuzz", "iot.dmp.config.adapter", {}) {}
    void message_request(DBus::CDBusMethodCall&, DBus::CDBusMethodReturn&, bool&) override {}
    void message_signal(DBus::CDBusSignal&) override {}
    void message_error(int32_t) override {}
};

struct CCapture {
    uint8_t fail_mask = 0;
    uint32_t calls = 0;
};

int32_t capture_set_config(CCapture& capture, const std::string& key, const std::string& value) {
    bool synced = false;
    for (const char* name : kSyncedKeys) synced = synced || key == name;
    if (!synced) fail("set_config of a key outside the synchronised seven", key);
    if (!is_dbus_text(key)) fail("set_config key is not D-Bus text", key);
    if (!is_dbus_text(value)) fail("set_config value is not D-Bus text", key + " = " + value);
    const bool refuse = (capture.fail_mask >> (capture.calls++ % 8)) & 1;
    return refuse ? kCodeRefused : 0;
}

// One pass of the shadow thread, if the bus reader counted a document; the count is looked at
// (which takes one) and given back before the pass takes it again.
void shadow_pass(CAdapterCore& core, bool through_run) {
    if (core.wait_shadow(0) != 0) return;
    core.notify_shadow();
    if (through_run) {
        if (!core.run_shadow_pass()) fail("run_shadow_pass found the gate closed", "");
    } else {
        core.shadow_thread_proc();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static CIdleServer server;
    if (size == 0) return 0;

    std::vector<std::string> records(1);
    for (size_t i = 1; i < size; ++i) {
        if (data[i] == 0) {
            if (records.size() >= kMaxRecords) break;
            records.emplace_back();
        } else {
            records.back() += static_cast<char>(data[i]);
        }
    }

    CCapture capture;
    capture.fail_mask = data[0];
    CAdapterCore core(&server);
    core.set_config_setter([&capture](const std::string& key, const std::string& value) {
        return capture_set_config(capture, key, value);
    });

    // As the adapter's start does, less its request for the whole shadow (record 5), which
    // changes nothing and would cost every run a publication.
    core.reset_shadow();
    core.set_topics(kGetTopic, kUpdateTopic);

    for (const std::string& record : records) {
        if (record.empty()) continue;
        const unsigned op = static_cast<unsigned char>(record[0]) % 8;
        const std::string text = record.substr(1);
        const bool text_ok = is_dbus_text(text);
        switch (op) {
            case 0:
            case 4:
                if (!text_ok) break;
                core.device_shadow_proc(kGetTopic, text);
                if (op == 4) shadow_pass(core, false);
                break;
            case 1:
                shadow_pass(core, false);
                break;
            case 2:
            case 3:
                if (!text_ok) break;
                if (op == 2) {
                    core.handle_serial_num_update(text);
                } else {
                    core.handle_orlo_info_update(text);
                }
                break;
            case 5:
                core.get_shadow_all();
                break;
            case 6:
                core.reset_shadow();
                break;
            default:
                shadow_pass(core, true);
                break;
        }
    }
    return 0;
}
