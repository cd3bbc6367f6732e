// cmctl reads a default-configuration document given to import, and the service's JSON answers to
// batch and key-list queries. The document may come from anywhere, so: reading it never throws and
// accepts only what can be set again (every key and stored text valid D-Bus text), and what export
// writes for those items reads back to the same items.
//
// Input: byte 0 picks the parser (0 document, 1 batch answer, 2 key-list answer); the rest is text.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "document.h"
#include "fuzz_support.h"

namespace {

using namespace Quorel::Iot::Cmctl;
using Quorel::Iot::Fuzz::fail;
using Quorel::Iot::Fuzz::is_dbus_text;

void check_document(const std::string& text) {
    std::vector<CStoredItem> items;
    std::string error;
    if (!read_document(text, items, error)) return;
    std::vector<CEntry> entries;
    for (const CStoredItem& item : items) {
        if (!is_dbus_text(item.key) || !is_dbus_text(item.stored)) fail("accepted text the bus cannot carry", item.key);
        entries.push_back(reading_of(item.key, item.stored));
    }
    // Export of these readings, read again, gives the same readings.
    std::vector<CStoredItem> again;
    if (!read_document(make_document(entries), again, error)) fail("cannot read its own export", error);
    if (again.size() != entries.size()) fail("its own export lost keys", std::to_string(again.size()));
    for (size_t i = 0; i < again.size(); ++i) {
        if (!same_reading(reading_of(again[i].key, again[i].stored), entries[i])) {
            fail("its own export reads back differently", entries[i].key);
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const std::string text(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 3) {
        case 0:
            check_document(text);
            break;
        case 1: {
            std::vector<CEntry> entries;
            parse_batch(text, entries);
            break;
        }
        default: {
            std::vector<std::string> keys;
            parse_keylist(text, keys);
            break;
        }
    }
    return 0;
}
