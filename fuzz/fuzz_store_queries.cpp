// The pattern queries over stored values: a key pattern (a POSIX basic regular expression from a
// bus client) meets value texts that may be envelopes {"data": ..., "ts": ...} of any shape. The
// input is NUL-separated fields, as D-Bus strings never hold NUL: the pattern, then key and value
// pairs, each stored with set_config into a fresh store (never started, so no saver thread). An
// empty value deletes its key, as on the bus.
//
// Nothing is caught here: an exception leaving a query would leave the service's bus handler, so it
// is a finding. Every answer of the pattern queries goes onto the bus as it is, so it must be valid
// D-Bus text and one JSON array line.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "quorel/configmanager/config_file_manager.h"

namespace {

using namespace Quorel::Iot::Configmanager;
using Quorel::Iot::Fuzz::fail;
using Quorel::Iot::Fuzz::is_dbus_text;

constexpr size_t kMaxPairs = 16;

std::vector<std::string> split_fields(const uint8_t* data, size_t size) {
    std::vector<std::string> fields(1);
    for (size_t i = 0; i < size; ++i) {
        if (data[i] == 0) {
            if (fields.size() > 1 + 2 * kMaxPairs) break;
            fields.emplace_back();
        } else {
            fields.back() += static_cast<char>(data[i]);
        }
    }
    return fields;
}

void check_answer(const char* query, const std::string& pattern, const std::string& out) {
    const std::string where = std::string(query) + "(" + pattern + "): " + out;
    if (!is_dbus_text(out)) fail("query answer is not valid D-Bus text", where);
    if (out.size() < 3 || out.front() != '[' || out.compare(out.size() - 2, 2, "]\n") != 0)
        fail("query answer is not a JSON array line", where);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string> fields = split_fields(data, size);
    const std::string& pattern = fields[0];

    CConfigFileManagerFullamount store;
    // A refusal (a key or value over its limit) is an answer like any other.
    for (size_t i = 1; i + 1 < fields.size(); i += 2) store.set_config(fields[i], fields[i + 1]);
    for (size_t i = 1; i + 1 < fields.size(); i += 2) {
        std::string value;
        if (store.get_config(fields[i], value) && value.find('\0') != std::string::npos)
            fail("get_config answer holds a NUL byte", fields[i]);
    }

    std::string out;
    if (store.get_config_batch(pattern, out)) check_answer("get_config_batch", pattern, out);
    out.clear();
    if (store.get_config_batch_with_ts(pattern, out)) check_answer("get_config_batch_with_ts", pattern, out);
    out.clear();
    if (store.get_config_keylist(pattern, out)) check_answer("get_config_keylist", pattern, out);

    Json::Value subscribe;
    if (store.get_metadata("subscribe", subscribe)) fail("metadata found in a store that never had any", "");
    return 0;
}
