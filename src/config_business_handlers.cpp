// The configuration service's method handlers: introspection, the get family, the two sets and
// the value envelope of set_config_with_ts.
#include <dbus/dbus.h>
#include <json/json.h>
#include <string.h>
#include <time.h>

#include <exception>
#include <memory>
#include <sstream>

#include "config_business_codes.h"
#include "json_text.h"
#include "quorel/configmanager/config_business.h"
#include "quorel/configmanager/limits.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {
constexpr const char kLogFile[] = "core-services/config-manager/src/config_business";
using namespace BusinessCode;

// Written as indented XML and sent as one line (every line break becomes a space); clients parse
// it as XML, and the leading space is part of what they have always received. Only four of the
// interface's methods are listed; the others are reached by name.
constexpr const char kIntrospectXml[] = R"(
<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN" "http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<!-- dbus-sharp 0.8.1 -->
<node>
  <interface name="org.freedesktop.DBus.Introspectable">
    <method name="Introspect">
      <arg name="data" direction="out" type="s" />
    </method>
  </interface>
  <interface name="iot.dmp.configmanager">
    <method name="get_config">
      <arg name="key" direction="in" type="s" />
      <arg name="code" direction="out" type="i" />
      <arg name="value" direction="out" type="s" />
    </method>
    <method name="set_config">
      <arg name="key" direction="in" type="s" />
      <arg name="value" direction="in" type="s" />
      <arg name="code" direction="out" type="i" />
    </method>
    <method name="subscribe_config">
      <arg name="dbus_name" direction="in" type="s" />
      <arg name="key" direction="in" type="s" />
      <arg name="type" direction="in" type="i" />
      <arg name="code" direction="out" type="i" />
    </method>
    <method name="unsubscribe_config">
      <arg name="dbus_name" direction="in" type="s" />
      <arg name="key" direction="in" type="s" />
      <arg name="code" direction="out" type="i" />
    </method>
  </interface>
</node>)";

const std::string& introspect_text() {
    static const std::string text = [] {
        std::string line = kIntrospectXml;
        for (char& c : line)
            if (c == '\n') c = ' ';
        return line;
    }();
    return text;
}

uint64_t now_ms() {
    struct timespec ts = {};
    clock_gettime(CLOCK_REALTIME, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

// The stored form of a set_config_with_ts value: compact, "data" before "ts", newline-terminated.
std::string make_envelope(const std::string& value, uint64_t ts) {
    Json::Value envelope(Json::objectValue);
    envelope["data"] = value;
    envelope["ts"] = Json::UInt64(ts);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    Json::FastWriter writer;
    return writer.write(envelope);
#pragma GCC diagnostic pop
}

// Plain values are the common case on the get path; the answer for text that cannot hold an
// object is the stored text either way, so it is not parsed.
bool parse_json(const std::string& text, Json::Value& out) {
    if (!may_hold_object(text)) return false;
    // Handlers run on the service's reader thread; one reader per thread avoids rebuilding it
    // per request (comments allowed, trailing text ignored).
    thread_local std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    std::string errors;
    try {
        return reader->parse(text.data(), text.data() + text.size(), &out, &errors);
    } catch (const std::exception&) {
        // Nested past the reader's depth limit: text that is no JSON.
        return false;
    }
}

bool is_envelope(const Json::Value& parsed) { return parsed.isObject() && !parsed.empty() && parsed.isMember("data"); }

// ASCII text is UTF-8, and query results are ASCII (the JSON writer escapes everything else): a
// check eight bytes at a time spares most answers libdbus's slower validation.
bool is_ascii(const std::string& text) {
    const char* p = text.data();
    size_t left = text.size();
    uint64_t high = 0;
    for (; left >= sizeof(uint64_t); left -= sizeof(uint64_t), p += sizeof(uint64_t)) {
        uint64_t word;
        memcpy(&word, p, sizeof(word));
        high |= word;
    }
    for (; left > 0; --left, ++p) high |= static_cast<unsigned char>(*p);
    return (high & 0x8080808080808080ull) == 0;
}

// What a get-family answer may carry: libdbus ends the process on text that is not UTF-8, and the
// bus daemon drops a connection whose message is over its size limit.
bool answerable(const std::string& text) {
    return text.size() <= Limits::kMaxReplyBytes && (is_ascii(text) || dbus_validate_utf8(text.c_str(), nullptr));
}

}  // namespace

void CConfigBusiness::handle_introspect(DBus::CDBusMethodReturn& reply) { reply.set_string(introspect_text()); }

void CConfigBusiness::handle_get(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply) {
    int32_t code = kNotEvaluated;
    std::string key;
    std::string text;
    if (request.get_string(key)) code = m_file_manager.get_config(key, text) ? kOk : kNotFound;
    QLOG(1, "handle_get, key:%s, code: %d", key.c_str(), code);
    // The answer is the stored text, or the data of the envelope it holds, made in place.
    std::string& value = text;
    uint64_t ts = 0;
    Json::Value parsed;
    if (code == kOk && !unwrap_plain_envelope(value, ts) && parse_json(value, parsed) && is_envelope(parsed)) {
        value = data_as_text(parsed["data"]);
    }
    if (!answerable(value)) {
        QLOG(3, "handle_get, key:%s, value is no UTF-8 text within %zu bytes.", key.c_str(), Limits::kMaxReplyBytes);
        code = kNotFound;
        value.clear();
    }
    reply.set_int32(code);
    reply.set_string(value);
}

void CConfigBusiness::handle_get_with_ts(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply) {
    int32_t code = kNotEvaluated;
    std::string key;
    std::string text;
    std::string data;
    uint64_t ts = 0;
    if (request.get_string(key)) code = m_file_manager.get_config(key, text) ? kOk : kNotFound;
    if (code == kOk) {
        Json::Value parsed;
        if (!parse_json(text, parsed)) {
            code = kNotFound;
        } else {
            const bool object = parsed.isObject() && !parsed.empty();
            // A "ts" the conversion refuses counts as missing rather than aborting the request.
            if (!object || !parsed.isMember("ts") || !ts_as_uint64(parsed["ts"], ts)) {
                ts = 0;
                code = kNotFound;
            }
            if (object && parsed.isMember("data")) {
                data = data_as_text(parsed["data"]);
            } else {
                code = kNotFound;
            }
        }
    }
    if (!answerable(data)) {
        QLOG(3, "handle_get_with_ts, key:%s, value is no UTF-8 text within %zu bytes.", key.c_str(),
             Limits::kMaxReplyBytes);
        code = kNotFound;
        data.clear();
        ts = 0;
    }
    QLOG(0, "handle_get_with_ts, key:%s, timestamp: %llu", key.c_str(), static_cast<unsigned long long>(ts));
    reply.set_int32(code);
    reply.set_string(data);
    reply.set_uint64(ts);
}

void CConfigBusiness::handle_get_key(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, PatternQuery query,
                                     const char* result_label) {
    int32_t code = kNotEvaluated;
    std::string key;
    std::string result;
    if (request.get_string(key)) code = (m_file_manager.*query)(key, result) ? kOk : kNotFound;
    if (!answerable(result)) {
        QLOG(3, "handle_get_key, key:%s, result is no UTF-8 text within %zu bytes.", key.c_str(),
             Limits::kMaxReplyBytes);
        code = kNotFound;
        result.clear();
    }
    QLOG(1, "handle_get_key, key:%s, %s:%.*s", key.c_str(), result_label, LOG_MESSAGE_MAX, result.c_str());
    reply.set_int32(code);
    reply.set_string(result);
}

void CConfigBusiness::handle_get_config_batch(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply) {
    handle_get_key(request, reply, &CConfigFileManagerFullamount::get_config_batch, "value");
}

void CConfigBusiness::handle_get_config_batch_with_ts(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply) {
    handle_get_key(request, reply, &CConfigFileManagerFullamount::get_config_batch_with_ts, "value");
}

void CConfigBusiness::handle_get_keylist(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply) {
    handle_get_key(request, reply, &CConfigFileManagerFullamount::get_config_keylist, "keylist");
}

void CConfigBusiness::handle_set(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply, bool& need_reply) {
    std::string key;
    std::string value;
    if (!request.get_string(key) || !request.get_string(value)) {
        reply.set_int32(kBadArguments);
        return;
    }
    QLOG(1, "handle_set, key:%s", key.c_str());
    if (!apply_set(key, value, value, reply, need_reply)) QLOG(3, "handle_set, notify to owner fail.");
}

void CConfigBusiness::handle_set_with_ts(DBus::CDBusMethodCall& request, DBus::CDBusMethodReturn& reply,
                                         bool& need_reply) {
    std::string key;
    std::string value;
    if (!request.get_string(key) || !request.get_string(value)) {
        reply.set_int32(kBadArguments);
        return;
    }
    uint64_t ts = 0;
    if (!request.get_uint64(ts) || ts == 0) ts = now_ms();
    const std::string envelope = make_envelope(value, ts);
    QLOG(1, "handle_set_with_ts, key:%s", key.c_str());
    if (!apply_set(key, envelope, value, reply, need_reply)) QLOG(3, "handle_set, notify to owner fail.");
}

bool CConfigBusiness::apply_set(const std::string& key, const std::string& stored, const std::string& notified,
                                DBus::CDBusMethodReturn& reply, bool& need_reply) {
    // One look at the table serves both questions: is there an owner, and who.
    std::string owner;
    if (!owner_of(key, owner)) {
        // Observers are told before the caller's answer goes out.
        if (m_file_manager.set_config(key, stored)) {
            notify_to_observer(key, notified);
            reply.set_int32(kOk);
        } else {
            reply.set_int32(kStoreRefused);
        }
        return true;
    }
    // An owner that leaves its questions unanswered holds its own key, not the service: beyond its
    // share the setter is told at once that the owner cannot be asked.
    if (!may_ask(owner)) {
        QLOG(3, "apply_set, owner %s holds too many unanswered questions, key:%s.", owner.c_str(), key.c_str());
        reply.set_int32(kOwnerUnreachable);
        return false;
    }
    uint64_t serial = 0;
    if (!notify_to_owner(key, notified, serial)) {
        reply.set_int32(kOwnerUnreachable);
        return false;
    }
    // The owner's answer is processed later on this same thread, so the record is in the table
    // before its completion can look for it.
    need_reply = false;
    defer_reply(serial, reply, key, stored, owner);
    return true;
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
