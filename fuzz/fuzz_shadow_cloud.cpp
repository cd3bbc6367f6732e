// The cloud simulator's handling of what any client of the broker may publish: documents on a
// device's update topic, and a state file it reads at start. Whatever arrives, every document it
// sends back must be JSON the gateway can parse and text the bus can carry, and its book stays
// within its bounds.
//
// Input: byte 0 picks the operation, the rest is the text.
//   0..5  a document on /shadow/update/pk/d<op> (a few devices, so updates meet earlier gets)
//   6     a state file to load
//   7     a command-line assignment KEY=VALUE, then desired into the book
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "shadow_book.h"

namespace {

using Quorel::Iot::Fuzz::fail;
using Quorel::Iot::Fuzz::is_dbus_text;
using ShadowCloud::CShadowBook;

void check_sent(const ShadowCloud::COutgoing& outgoing) {
    Json::Value parsed;
    if (!CShadowBook::parse(outgoing.payload, parsed) || !parsed.isObject()) {
        fail("sent a document that is not a JSON object", outgoing.payload);
    }
    if (!is_dbus_text(outgoing.payload) || !is_dbus_text(outgoing.topic)) {
        fail("sent text the bus could not carry", outgoing.payload);
    }
    if (outgoing.topic.compare(0, 12, "/shadow/get/") != 0)
        fail("sent on a topic outside /shadow/get/", outgoing.topic);
}

// One book across inputs, so that what an input leaves behind meets the next one, as in a long run.
CShadowBook g_book;

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const uint8_t op = data[0] & 7;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    if (op <= 5) {
        const ShadowCloud::CHandled handled = g_book.handle_update("/shadow/update/pk/d" + std::to_string(op), text);
        for (const ShadowCloud::COutgoing& outgoing : handled.outgoing) check_sent(outgoing);
        if (!handled.note.empty() && !handled.outgoing.empty()) fail("answered a document it ignored", text);
    } else if (op == 6) {
        const Json::Value before = g_book.show_all();
        std::string reason;
        if (!g_book.load(text, reason) && g_book.show_all() != before)
            fail("a refused state file changed the book", text);
    } else {
        std::string key;
        Json::Value value;
        if (CShadowBook::parse_assignment(text, key, value)) {
            Json::Value values(Json::objectValue);
            values[key] = value;
            ShadowCloud::COutgoing control;
            std::string reason;
            if (g_book.desire("pk/d0", values, control, reason)) check_sent(control);
        }
    }
    const Json::Value all = g_book.show_all();
    if (all.size() > CShadowBook::kMaxDevices) fail("more devices than the bound", std::to_string(all.size()));
    for (const std::string& device : all.getMemberNames()) {
        if (all[device]["desired"].size() > CShadowBook::kMaxMembers ||
            all[device]["reported"].size() > CShadowBook::kMaxMembers) {
            fail("a shadow holds more members than the bound", device);
        }
    }
    // What the book saves, it must load again.
    CShadowBook copy;
    std::string reason;
    if (!copy.load(g_book.save(), reason)) fail("cannot load its own state file", reason);
    return 0;
}
