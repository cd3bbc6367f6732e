#include <cstdint>
#include <exception>
#include <functional>
#include <string>
#include <utility>

#include "config_file_manager_internal.h"
#include "json_text.h"
#include "key_pattern.h"
#include "quorel/configmanager/base64.h"
#include "quorel/configmanager/config_file_manager.h"
#include "quorel/configmanager/limits.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/src/config_file_manager";

// Why a walk over the keys ended without a usable result; the query then answers false.
enum class CWalkEnd { kDone, kPatternRefused, kOverBudget };

// Visits the keys of doc["config"] that match pattern, in ascending byte order, logging each
// match under the querying function's name. Reaching "config" creates it (null) on a null or
// object document without marking the document changed; other documents have no keys. visit
// returns false to stop the walk (the result has grown past its limit).
CWalkEnd for_each_match(Json::Value& doc, const std::string& pattern, const char* function,
                        const std::function<bool(const std::string& key, const Json::Value& encoded)>& visit) {
    CKeyPattern matcher(pattern);
    if (!matcher.accepted()) {
        // Treated as a pattern that does not compile: it matches nothing.
        log_print(3, "color", "tag", kLogFile, function, __LINE__, "%s, pattern refused (%s): %s", function,
                  matcher.refusal().c_str(), pattern.c_str());
        return CWalkEnd::kPatternRefused;
    }
    if (!doc.isNull() && !doc.isObject()) return CWalkEnd::kDone;
    const Json::Value& config = doc["config"];
    if (!config.isObject()) return CWalkEnd::kDone;
    // One buffer for every key name: most names are longer than a short string holds inline.
    std::string key;
    for (auto it = config.begin(); it != config.end(); ++it) {
        const char* name_end = nullptr;
        const char* name = it.memberName(&name_end);
        key.assign(name, name_end);
        if (!matcher.matches(key)) {
            if (matcher.over_budget()) {
                log_print(3, "color", "tag", kLogFile, function, __LINE__,
                          "%s, pattern ran past its budget of %u ms: %s", function,
                          static_cast<unsigned>(Limits::kQueryBudgetMs), pattern.c_str());
                return CWalkEnd::kOverBudget;
            }
            continue;
        }
        log_print(1, "color", "tag", kLogFile, function, __LINE__, "The name %s, key %s is matched", pattern.c_str(),
                  key.c_str());
        if (!visit(key, *it)) break;
    }
    return CWalkEnd::kDone;
}

// The value text of a stored value and, for an envelope, its "data" and "ts".
struct CValueView {
    std::string value;
    uint64_t ts = 0;
};

// Reads the envelope leniently with the old reader, as clients have always been served. One
// reader serves a whole query; text that cannot open an object is not parsed at all, since its
// view is the text itself. A "data" object or array reads as its compact JSON text, a "ts" the
// conversion refuses as 0, and text nested past the reader's depth limit as text that is no JSON.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
CValueView view_value(Json::Reader& reader, const Json::Value& encoded, bool with_ts) {
    CValueView view;
    // A stored member of another type than string is written back as it is, but has no value text.
    if (encoded.isString()) {
        const char* begin = nullptr;
        const char* end = nullptr;
        encoded.getString(&begin, &end);
        base64_decode(begin, static_cast<size_t>(end - begin), view.value);
    }
    if (!may_hold_object(view.value)) return view;
    // What set_config_with_ts stores, read without building a value tree.
    uint64_t ts = 0;
    if (unwrap_plain_envelope(view.value, ts)) {
        if (with_ts) view.ts = ts;
        return view;
    }
    Json::Value parsed;
    try {
        if (!reader.parse(view.value, parsed, true)) return view;
    } catch (const std::exception&) {
        return view;
    }
    if (!parsed.isObject() || parsed.empty()) return view;
    if (with_ts && parsed.isMember("ts") && !ts_as_uint64(parsed["ts"], view.ts)) view.ts = 0;
    if (parsed.isMember("data")) view.value = data_as_text(parsed["data"]);
    return view;
}

#pragma GCC diagnostic pop

// Builds a query result directly as the compact writer's text (elements separated by commas,
// no blanks, a newline at the end): building a value tree first costs more than the query.
class CResultArray {
public:
    std::string& next() {
        m_text += m_text.empty() ? '[' : ',';
        return m_text;
    }
    bool empty() const { return m_text.empty(); }
    // False once the text has grown past what one answer may carry; the walk stops then.
    bool fits() {
        if (m_text.size() + 2 > Limits::kMaxReplyBytes) m_overflow = true;
        return !m_overflow;
    }
    bool overflow() const { return m_overflow; }
    // Hands the text over rather than copying it: a result may be a megabyte.
    std::string finish() {
        m_text += "]\n";
        return std::move(m_text);
    }

private:
    std::string m_text;
    bool m_overflow = false;
};

// Hands the query result over, or reports that nothing matched.
bool finish_query(CResultArray& result, CWalkEnd end, const std::string& pattern, const char* function,
                  int result_level, std::string& out) {
    if (end == CWalkEnd::kOverBudget) return false;
    if (result.overflow()) {
        log_print(3, "color", "tag", kLogFile, function, __LINE__, "%s, result longer than %zu bytes, pattern:%s",
                  function, Limits::kMaxReplyBytes, pattern.c_str());
        return false;
    }
    if (result.empty()) {
        log_print(1, "color", "tag", kLogFile, function, __LINE__, "Didn't find the key: %s", pattern.c_str());
        return false;
    }
    out = result.finish();
    log_print(result_level, "color", "tag", kLogFile, function, __LINE__, "arrayObj: %.*s", LOG_MESSAGE_MAX,
              out.c_str());
    return true;
}

}  // namespace

bool CConfigFileManagerFullamount::get_config(const std::string& key, std::string& value) {
    static const Store::CValueLookupTexts kTexts = {"get_config", "get_config fail, member config error.",
                                                    "get_config fail, member %s error."};
    Platform::CMutexGuard guard(m_lock);
    return Store::lookup_config_value(m_config_json, key, value, kTexts);
}

namespace {

// What one member of "config" counts towards the store's size limit.
size_t member_bytes(const std::string& key, const Json::Value& encoded) {
    return key.size() + (encoded.isString() ? encoded.asString().size() : 0);
}

}  // namespace

size_t CConfigFileManagerFullamount::config_bytes() {
    if (!m_config_bytes_known) {
        m_config_bytes = 0;
        const Json::Value* config = Store::find_config(m_config_json);
        if (config != nullptr && config->isObject()) {
            for (auto it = config->begin(); it != config->end(); ++it) m_config_bytes += member_bytes(it.name(), *it);
        }
        m_config_bytes_known = true;
    }
    return m_config_bytes;
}

bool CConfigFileManagerFullamount::set_config(const std::string& key, const std::string& value) {
    if (key.size() > Limits::kMaxKeyBytes || value.size() > Limits::kMaxValueBytes) {
        QLOG(3, "set_config, key or value over its limit, key bytes:%zu, value bytes:%zu.", key.size(), value.size());
        return false;
    }
    {
        Platform::CMutexGuard guard(m_lock);
        const size_t bytes = config_bytes();
        if (value.empty()) {
            const Json::Value* config = Store::find_config(m_config_json);
            if (config != nullptr && config->isObject()) {
                const Json::Value* old = config->find(key.data(), key.data() + key.size());
                if (old != nullptr) m_config_bytes = bytes - member_bytes(key, *old);
                m_config_json["config"].removeMember(key);
            }
        } else {
            // A document or "config" of another type cannot take members; refuse rather than
            // let the JSON library throw into the bus handler.
            if (!m_config_json.isNull() && !m_config_json.isObject()) return false;
            Json::Value& config = m_config_json["config"];
            if (!config.isNull() && !config.isObject()) return false;
            std::string encoded;
            base64_encode(value, encoded);
            const Json::Value* old = config.find(key.data(), key.data() + key.size());
            const size_t old_bytes = old != nullptr ? member_bytes(key, *old) : 0;
            const size_t new_bytes = bytes - old_bytes + key.size() + encoded.size();
            if ((old == nullptr && config.size() >= Limits::kMaxKeys) || new_bytes > Limits::kMaxStoreBytes) {
                QLOG(3, "set_config, store full, keys:%u, bytes:%zu, key:%s.", config.size(), bytes, key.c_str());
                return false;
            }
            if (old != nullptr) {
                // Found above: replaced where it is, without a second lookup.
                *const_cast<Json::Value*>(old) = Json::Value(encoded);
            } else {
                config[key] = std::move(encoded);
            }
            m_config_bytes = new_bytes;
        }
    }
    // Even a delete of an absent key is saved: the saver cannot tell and need not.
    mark_changed();
    return true;
}

// The lenient reader is the deprecated one; clients depend on its leniency.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
bool CConfigFileManagerFullamount::get_config_batch(const std::string& name, std::string& out) {
    Platform::CMutexGuard guard(m_lock);
    CResultArray result;
    Json::Reader reader;
    const CWalkEnd end =
        for_each_match(m_config_json, name, __func__, [&](const std::string& key, const Json::Value& encoded) {
            const CValueView view = view_value(reader, encoded, false);
            std::string& text = result.next();
            text += "{\"key\":";
            append_quoted(text, key.data(), key.size());
            text += ",\"value\":";
            append_quoted(text, view.value.data(), view.value.size());
            text += '}';
            return result.fits();
        });
    return finish_query(result, end, name, __func__, 0, out);
}

bool CConfigFileManagerFullamount::get_config_batch_with_ts(const std::string& name, std::string& out) {
    Platform::CMutexGuard guard(m_lock);
    CResultArray result;
    Json::Reader reader;
    const CWalkEnd end =
        for_each_match(m_config_json, name, __func__, [&](const std::string& key, const Json::Value& encoded) {
            const CValueView view = view_value(reader, encoded, true);
            std::string& text = result.next();
            text += "{\"key\":";
            append_quoted(text, key.data(), key.size());
            text += ",\"ts\":";
            text += std::to_string(view.ts);
            text += ",\"value\":";
            append_quoted(text, view.value.data(), view.value.size());
            text += '}';
            return result.fits();
        });
    return finish_query(result, end, name, __func__, 0, out);
}
#pragma GCC diagnostic pop

bool CConfigFileManagerFullamount::get_config_keylist(const std::string& name, std::string& out) {
    Platform::CMutexGuard guard(m_lock);
    CResultArray result;
    const CWalkEnd end =
        for_each_match(m_config_json, name, __func__, [&result](const std::string& key, const Json::Value&) {
            append_quoted(result.next(), key.data(), key.size());
            return result.fits();
        });
    return finish_query(result, end, name, __func__, 1, out);
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
