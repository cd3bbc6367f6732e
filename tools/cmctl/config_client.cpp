#include "config_client.h"

#include <initializer_list>
#include <memory>

#include "json_text.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

namespace {

struct CMessageUnref {
    void operator()(DBusMessage* message) const { dbus_message_unref(message); }
};
using MessagePtr = std::unique_ptr<DBusMessage, CMessageUnref>;

// A call of member with string arguments; the callers have checked that each is UTF-8 text.
MessagePtr new_call(const char* member, std::initializer_list<const std::string*> strings) {
    MessagePtr call(dbus_message_new_method_call(kServiceName, kServicePath, kServiceName, member));
    if (!call) return nullptr;
    DBusMessageIter iter;
    dbus_message_iter_init_append(call.get(), &iter);
    for (const std::string* text : strings) {
        const char* data = text->c_str();
        if (!dbus_message_iter_append_basic(&iter, DBUS_TYPE_STRING, &data)) return nullptr;
    }
    return call;
}

bool append_basic(DBusMessage* call, int type, const void* value) {
    DBusMessageIter iter;
    dbus_message_iter_init_append(call, &iter);
    return dbus_message_iter_append_basic(&iter, type, value);
}

// A set still waiting for the key's owner when the service stops is answered with one JSON text
// holding the code instead of an int32.
CAnswer read_shutdown_answer(DBusMessageIter& iter) {
    CAnswer answer;
    const char* text = nullptr;
    dbus_message_iter_get_basic(&iter, &text);
    Json::Value document;
    if (parse_json(text, document) && document.isObject() && document["code"].isInt()) {
        answer.kind = CAnswer::Kind::Closed;
        answer.code = document["code"].asInt();
        answer.text = document["message"].asString();
    }
    return answer;
}

// The method return: int32 code, then, for the getters, the text and the timestamp.
CAnswer read_reply(DBusMessage* reply) {
    CAnswer answer;
    DBusMessageIter iter;
    if (!dbus_message_iter_init(reply, &iter)) return answer;
    if (dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_STRING) return read_shutdown_answer(iter);
    if (dbus_message_iter_get_arg_type(&iter) != DBUS_TYPE_INT32) return answer;
    dbus_int32_t code = 0;
    dbus_message_iter_get_basic(&iter, &code);
    answer.kind = CAnswer::Kind::Code;
    answer.code = code;
    if (dbus_message_iter_next(&iter) && dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_STRING) {
        const char* text = nullptr;
        dbus_message_iter_get_basic(&iter, &text);
        answer.text = text;
        if (dbus_message_iter_next(&iter) && dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_UINT64) {
            dbus_uint64_t ts = 0;
            dbus_message_iter_get_basic(&iter, &ts);
            answer.ts = ts;
        }
    }
    return answer;
}

CAnswer::Kind kind_of(CallFailure failure) {
    switch (failure) {
        case CallFailure::NoService:
            return CAnswer::Kind::NoService;
        case CallFailure::Timeout:
            return CAnswer::Kind::Timeout;
        case CallFailure::Disconnected:
            return CAnswer::Kind::Lost;
        case CallFailure::None:
        case CallFailure::ErrorReply:
            break;
    }
    return CAnswer::Kind::BusError;
}

}  // namespace

CAnswer CConfigClient::call(DBusMessage* request) {
    CAnswer answer;
    if (request == nullptr) {
        answer.kind = CAnswer::Kind::BusError;
        answer.text = "out of memory";
        return answer;
    }
    CallFailure failure = CallFailure::None;
    std::string detail;
    MessagePtr reply(m_bus.call(request, m_timeout_ms, failure, detail));
    if (!reply) {
        answer.kind = kind_of(failure);
        answer.text = detail;
        return answer;
    }
    return read_reply(reply.get());
}

CAnswer CConfigClient::get(const std::string& key) { return call(new_call("get_config", {&key}).get()); }

CAnswer CConfigClient::get_with_ts(const std::string& key) {
    return call(new_call("get_config_with_ts", {&key}).get());
}

CAnswer CConfigClient::set(const std::string& key, const std::string& value) {
    return call(new_call("set_config", {&key, &value}).get());
}

CAnswer CConfigClient::set_with_ts(const std::string& key, const std::string& value, uint64_t ts) {
    MessagePtr request = new_call("set_config_with_ts", {&key, &value});
    const dbus_uint64_t stamp = ts;
    if (request && !append_basic(request.get(), DBUS_TYPE_UINT64, &stamp)) request.reset();
    return call(request.get());
}

CAnswer CConfigClient::batch_with_ts(const std::string& pattern) {
    return call(new_call("get_config_batch_with_ts", {&pattern}).get());
}

CAnswer CConfigClient::keylist(const std::string& pattern) {
    return call(new_call("get_config_keylist", {&pattern}).get());
}

CAnswer CConfigClient::subscribe(const std::string& name, const std::string& key, int32_t type) {
    MessagePtr request = new_call("subscribe_config", {&name, &key});
    const dbus_int32_t role = type;
    if (request && !append_basic(request.get(), DBUS_TYPE_INT32, &role)) request.reset();
    return call(request.get());
}

CAnswer CConfigClient::unsubscribe(const std::string& name, const std::string& key) {
    return call(new_call("unsubscribe_config", {&name, &key}).get());
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
