#include "document.h"

#include "arguments.h"
#include "json_text.h"
#include "quorel/configmanager/base64.h"
#include "text_format.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

using Configmanager::base64_char_value;
using Configmanager::base64_decode;
using Configmanager::base64_encode;

// The readers' text for a "data" member: strings as they are, other values as JSON text.
std::string data_text(const Json::Value& data) {
    if (data.isString()) return data.asString();
    if (data.isObject() || data.isArray()) return compact_json(data);
    return data.asString();
}

// The readers' conversion of "ts"; what cannot be converted counts as 0.
uint64_t ts_of(const Json::Value& ts) {
    if (ts.isUInt64()) return ts.asUInt64();
    if (ts.isBool()) return ts.asBool() ? 1 : 0;
    if (ts.isDouble() && ts.asDouble() >= 0 && ts.asDouble() < 18446744073709551616.0) {
        return static_cast<uint64_t>(ts.asDouble());
    }
    return 0;
}

// The service's decoder accepts anything; a document written by hand deserves a clear refusal.
bool is_strict_base64(const std::string& text) {
    if (text.size() % 4 != 0) return false;
    size_t padding = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '=') {
            ++padding;
        } else if (padding > 0 || base64_char_value(text[i]) < 0) {
            return false;
        }
    }
    return padding <= 2;
}

}  // namespace

bool same_reading(const CEntry& a, const CEntry& b) { return a.value == b.value && a.ts == b.ts; }

bool parse_batch(const std::string& text, std::vector<CEntry>& entries) {
    Json::Value array;
    if (!parse_json(text, array) || !array.isArray()) return false;
    for (const Json::Value& element : array) {
        if (!element.isObject() || !element["key"].isString()) return false;
        CEntry entry;
        entry.key = element["key"].asString();
        entry.value = data_text(element["value"]);
        entry.ts = ts_of(element["ts"]);
        entries.push_back(entry);
    }
    return true;
}

bool parse_keylist(const std::string& text, std::vector<std::string>& keys) {
    Json::Value array;
    if (!parse_json(text, array) || !array.isArray()) return false;
    for (const Json::Value& element : array) {
        if (!element.isString()) return false;
        keys.push_back(element.asString());
    }
    return true;
}

std::string stored_text(const CEntry& entry) {
    if (entry.ts == 0) return entry.value;
    Json::Value envelope(Json::objectValue);
    envelope["data"] = entry.value;
    envelope["ts"] = Json::Value::UInt64(entry.ts);
    return compact_json(envelope) + "\n";
}

CEntry reading_of(const std::string& key, const std::string& stored) {
    CEntry entry;
    entry.key = key;
    entry.value = stored;
    Json::Value parsed;
    if (parse_json(stored, parsed) && parsed.isObject() && !parsed.empty() && parsed.isMember("data")) {
        entry.value = data_text(parsed["data"]);
        entry.ts = ts_of(parsed["ts"]);
    }
    return entry;
}

bool split_envelope(const std::string& stored, std::string& data, uint64_t& ts) {
    Json::Value parsed;
    if (!parse_json(stored, parsed) || !parsed.isObject() || parsed.size() != 2) return false;
    const Json::Value& data_member = parsed["data"];
    const Json::Value& ts_member = parsed["ts"];
    if (!data_member.isString() || !ts_member.isUInt64() || ts_member.asUInt64() == 0) return false;
    // JSON escapes can spell text that is not UTF-8 (a lone surrogate), which libdbus refuses.
    if (!is_bus_text(data_member.asString())) return false;
    data = data_member.asString();
    ts = ts_member.asUInt64();
    return true;
}

std::string make_document(const std::vector<CEntry>& entries) {
    Json::Value document(Json::objectValue);
    Json::Value& config = document["config"] = Json::Value(Json::objectValue);
    for (const CEntry& entry : entries) {
        std::string encoded;
        base64_encode(stored_text(entry), encoded);
        config[entry.key] = encoded;
    }
    document["metadata"] = Json::Value(Json::objectValue);
    return indented_json(document);
}

bool read_document(const std::string& text, std::vector<CStoredItem>& items, std::string& error) {
    Json::Value document;
    std::string parse_error;
    if (!parse_json(text, document, &parse_error)) {
        error = "not JSON: " + parse_error.substr(0, parse_error.find('\n'));
        return false;
    }
    if (!document.isObject() || !document["config"].isObject()) {
        error = "no \"config\" object";
        return false;
    }
    const Json::Value& config = document["config"];
    for (const std::string& key : config.getMemberNames()) {
        const Json::Value& value = config[key];
        if (!is_bus_text(key)) {
            error = "a key is not UTF-8 text";
            return false;
        }
        if (!value.isString() || !is_strict_base64(value.asString())) {
            error = escape_control(key) + ": the value is not a base64 string";
            return false;
        }
        CStoredItem item{key, ""};
        base64_decode(value.asString(), item.stored);
        if (!is_bus_text(item.stored)) {
            error = escape_control(key) + ": the value is not UTF-8 text";
            return false;
        }
        items.push_back(item);
    }
    return true;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
