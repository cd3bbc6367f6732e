#include <regex.h>

#include <cstdint>
#include <functional>

#include "config_file_manager_internal.h"
#include "quorel/configmanager/base64.h"
#include "quorel/configmanager/config_file_manager.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/src/config_file_manager";

// A key pattern: POSIX basic regular expression, case-sensitive, found anywhere in the key.
// Compiled once per query; a pattern that does not compile matches no key.
class CKeyPattern {
public:
    explicit CKeyPattern(const std::string& pattern) : m_compiled(regcomp(&m_regex, pattern.c_str(), 0) == 0) {}
    ~CKeyPattern() {
        if (m_compiled) regfree(&m_regex);
    }
    CKeyPattern(const CKeyPattern&) = delete;
    CKeyPattern& operator=(const CKeyPattern&) = delete;

    bool matches(const std::string& key) const {
        return m_compiled && regexec(&m_regex, key.c_str(), 0, nullptr, 0) == 0;
    }

private:
    regex_t m_regex;
    bool m_compiled;
};

// Visits the keys of doc["config"] that match pattern, in ascending byte order, logging each
// match under the querying function's name. Reaching "config" creates it (null) on a null or
// object document without marking the document changed; other documents have no keys.
void for_each_match(Json::Value& doc, const std::string& pattern, const char* function,
                    const std::function<void(const std::string& key, const Json::Value& encoded)>& visit) {
    if (!doc.isNull() && !doc.isObject()) return;
    const Json::Value& config = doc["config"];
    if (!config.isObject()) return;
    const CKeyPattern matcher(pattern);
    for (const std::string& key : config.getMemberNames()) {
        if (!matcher.matches(key)) continue;
        log_print(1, "color", "tag", kLogFile, function, __LINE__, "The name %s, key %s is matched", pattern.c_str(),
                  key.c_str());
        visit(key, config[key]);
    }
}

// The value text of a stored value and, for an envelope, its "data" and "ts".
struct CValueView {
    std::string value;
    uint64_t ts = 0;
};

// Reads the envelope leniently with the old reader, as clients have always been served. A "data"
// that is an object or array, or (when asked for) a "ts" that is no unsigned number, throws
// Json::LogicError. One reader serves a whole query; text that cannot open an object is not
// parsed at all, since its view is the text itself.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
CValueView view_value(Json::Reader& reader, const Json::Value& encoded, bool with_ts) {
    CValueView view;
    base64_decode(encoded.asString(), view.value);
    if (!may_hold_object(view.value)) return view;
    Json::Value parsed;
    if (!reader.parse(view.value, parsed, true)) return view;
    if (!parsed.isObject() || parsed.empty()) return view;
    if (with_ts && parsed.isMember("ts")) view.ts = parsed["ts"].asUInt64();
    if (parsed.isMember("data")) view.value = parsed["data"].asString();
    return view;
}

// The JSON library's quoting, as its compact writer does it. Its plain quoting function stops at
// a NUL byte; the rare text holding one goes through the writer itself.
std::string quoted(const std::string& text) {
    if (text.find('\0') == std::string::npos) return Json::valueToQuotedString(text.c_str());
    std::string written = Json::FastWriter().write(Json::Value(text));
    written.pop_back();
    return written;
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
    std::string finish() { return m_text + "]\n"; }

private:
    std::string m_text;
};

// Hands the query result over, or reports that nothing matched.
bool finish_query(CResultArray& result, const std::string& pattern, const char* function, int result_level,
                  std::string& out) {
    if (result.empty()) {
        log_print(1, "color", "tag", kLogFile, function, __LINE__, "Didn't find the key: %s", pattern.c_str());
        return false;
    }
    out = result.finish();
    log_print(result_level, "color", "tag", kLogFile, function, __LINE__, "arrayObj: %s", out.c_str());
    return true;
}

}  // namespace

bool CConfigFileManagerFullamount::get_config(const std::string& key, std::string& value) {
    static const Store::CValueLookupTexts kTexts = {"get_config", "get_config fail, member config error.",
                                                    "get_config fail, member %s error."};
    Platform::CMutexGuard guard(m_lock);
    return Store::lookup_config_value(m_config_json, key, value, kTexts);
}

bool CConfigFileManagerFullamount::set_config(const std::string& key, const std::string& value) {
    {
        Platform::CMutexGuard guard(m_lock);
        if (value.empty()) {
            const Json::Value* config = Store::find_config(m_config_json);
            if (config != nullptr && config->isObject()) m_config_json["config"].removeMember(key);
        } else {
            // A document or "config" of another type cannot take members; refuse rather than
            // let the JSON library throw into the bus handler.
            if (!m_config_json.isNull() && !m_config_json.isObject()) return false;
            Json::Value& config = m_config_json["config"];
            if (!config.isNull() && !config.isObject()) return false;
            std::string encoded;
            base64_encode(value, encoded);
            config[key] = encoded;
        }
    }
    // Even a delete of an absent key is saved: the saver cannot tell and need not.
    m_changed.store(true, std::memory_order_release);
    m_save_sem.post();
    return true;
}

// The lenient reader is the deprecated one; clients depend on its leniency.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
bool CConfigFileManagerFullamount::get_config_batch(const std::string& name, std::string& out) {
    Platform::CMutexGuard guard(m_lock);
    CResultArray result;
    Json::Reader reader;
    for_each_match(m_config_json, name, __func__, [&](const std::string& key, const Json::Value& encoded) {
        const CValueView view = view_value(reader, encoded, false);
        result.next().append("{\"key\":").append(quoted(key)).append(",\"value\":").append(quoted(view.value)) += '}';
    });
    return finish_query(result, name, __func__, 0, out);
}

bool CConfigFileManagerFullamount::get_config_batch_with_ts(const std::string& name, std::string& out) {
    Platform::CMutexGuard guard(m_lock);
    CResultArray result;
    Json::Reader reader;
    for_each_match(m_config_json, name, __func__, [&](const std::string& key, const Json::Value& encoded) {
        const CValueView view = view_value(reader, encoded, true);
        result.next()
            .append("{\"key\":")
            .append(quoted(key))
            .append(",\"ts\":")
            .append(std::to_string(view.ts))
            .append(",\"value\":")
            .append(quoted(view.value)) += '}';
    });
    return finish_query(result, name, __func__, 0, out);
}
#pragma GCC diagnostic pop

bool CConfigFileManagerFullamount::get_config_keylist(const std::string& name, std::string& out) {
    Platform::CMutexGuard guard(m_lock);
    CResultArray result;
    for_each_match(m_config_json, name, __func__,
                   [&result](const std::string& key, const Json::Value&) { result.next() += quoted(key); });
    return finish_query(result, name, __func__, 1, out);
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
