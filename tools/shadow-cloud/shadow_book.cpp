#include "shadow_book.h"

#include <dbus/dbus.h>

#include <memory>
#include <sstream>

namespace ShadowCloud {

namespace {

constexpr size_t kMaxDeviceLength = 512;
constexpr int kMaxDepth = 32;

bool is_utf8(const std::string& text) {
    return text.find('\0') == std::string::npos && dbus_validate_utf8(text.c_str(), nullptr);
}

bool is_version(const Json::Value& value) {
    return value.isUInt64() || (value.isIntegral() && value.asLargestInt() >= 0);
}

}  // namespace

bool CShadowBook::parse(const std::string& text, Json::Value& value) {
    if (text.size() > kMaxDocument) return false;
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kMaxDepth;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    try {
        return reader->parse(text.data(), text.data() + text.size(), &value, &errors);
    } catch (const std::exception&) {
        // jsoncpp reports a document nested deeper than the stack limit by throwing.
        return false;
    }
}

std::string CShadowBook::compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["emitUTF8"] = true;
    return Json::writeString(builder, value);
}

bool CShadowBook::device_of(const std::string& topic, const std::string& prefix, std::string& device) {
    if (topic.compare(0, prefix.size(), prefix) != 0) return false;
    device = topic.substr(prefix.size());
    return true;
}

bool CShadowBook::acceptable_device(const std::string& device) {
    return device.size() <= kMaxDeviceLength && is_utf8(device) && device.find_first_of("+#") == std::string::npos;
}

bool CShadowBook::valid_device(const std::string& device) {
    if (!acceptable_device(device)) return false;
    const size_t slash = device.find('/');
    return slash != std::string::npos && slash > 0 && slash + 1 < device.size();
}

bool CShadowBook::parse_assignment(const std::string& argument, std::string& key, Json::Value& value) {
    const size_t equals = argument.find('=');
    if (equals == std::string::npos || equals == 0) return false;
    key = argument.substr(0, equals);
    const std::string text = argument.substr(equals + 1);
    if (!is_utf8(key) || !is_utf8(text)) return false;
    Json::Value parsed;
    if (parse(text, parsed) && !parsed.isObject() && !parsed.isArray()) {
        value = parsed;
    } else {
        value = Json::Value(text);
    }
    return true;
}

Json::Value CShadowBook::document_of(const CShadow& shadow) {
    Json::Value document(Json::objectValue);
    document["desired"] = shadow.desired;
    document["reported"] = shadow.reported;
    document["version"] = Json::UInt64(shadow.version);
    return document;
}

CShadow* CShadowBook::find_or_add(const std::string& device, std::string& reason) {
    auto found = m_shadows.find(device);
    if (found != m_shadows.end()) return &found->second;
    if (m_shadows.size() >= kMaxDevices) {
        reason = "too many devices";
        return nullptr;
    }
    return &m_shadows[device];
}

bool CShadowBook::merge(Json::Value& into, const Json::Value& values, std::string& reason) {
    if (!values.isObject()) {
        reason = "the values are not a JSON object";
        return false;
    }
    Json::Value merged = into;
    for (const std::string& name : values.getMemberNames()) {
        if (values[name].isNull()) {
            merged.removeMember(name);
        } else {
            merged[name] = values[name];
        }
    }
    if (merged.size() > kMaxMembers) {
        reason = "too many members";
        return false;
    }
    into = merged;
    return true;
}

CHandled CShadowBook::handle_update(const std::string& topic, const std::string& payload) {
    CHandled handled;
    if (!device_of(topic, kUpdatePrefix, handled.device) || !acceptable_device(handled.device)) {
        handled.note = "not a shadow update topic";
        return handled;
    }
    Json::Value document;
    if (!parse(payload, document) || !document.isObject()) {
        handled.note = "not a JSON object";
        return handled;
    }
    const Json::Value& method = document["method"];
    if (!method.isString()) {
        handled.note = "no method";
        return handled;
    }
    handled.method = method.asString();
    if (handled.method == "get") {
        CShadow* shadow = find_or_add(handled.device, handled.note);
        if (shadow == nullptr) return handled;
        Json::Value reply(Json::objectValue);
        reply["method"] = "reply";
        reply["payload"]["status"] = "success";
        reply["payload"]["state"]["desired"] = shadow->desired;
        reply["payload"]["state"]["reported"] = shadow->reported;
        reply["version"] = Json::UInt64(shadow->version);
        handled.outgoing.push_back({kGetPrefix + handled.device, reply.toStyledString()});
        return handled;
    }
    if (handled.method == "update") {
        const Json::Value& state = document["state"];
        const Json::Value& reported = state.isObject() ? state["reported"] : Json::Value::nullSingleton();
        if (!reported.isObject()) {
            handled.note = "no state.reported object";
            return handled;
        }
        CShadow* shadow = find_or_add(handled.device, handled.note);
        if (shadow == nullptr || !merge(shadow->reported, reported, handled.note)) return handled;
        const Json::Value& version = document["version"];
        shadow->version = is_version(version) ? version.asUInt64() : shadow->version + 1;
        return handled;
    }
    handled.note = "method not handled by the cloud";
    return handled;
}

bool CShadowBook::desire(const std::string& device, const Json::Value& values, COutgoing& control,
                         std::string& reason) {
    if (!valid_device(device)) {
        reason = "not a device name of the form <product key>/<device name>";
        return false;
    }
    CShadow* shadow = find_or_add(device, reason);
    if (shadow == nullptr || !merge(shadow->desired, values, reason)) return false;
    ++shadow->version;
    Json::Value document(Json::objectValue);
    document["method"] = "control";
    document["payload"]["state"]["desired"] = shadow->desired;
    document["version"] = Json::UInt64(shadow->version);
    control = {kGetPrefix + device, document.toStyledString()};
    return true;
}

bool CShadowBook::report(const std::string& device, const Json::Value& values, std::string& reason) {
    if (!valid_device(device)) {
        reason = "not a device name of the form <product key>/<device name>";
        return false;
    }
    CShadow* shadow = find_or_add(device, reason);
    return shadow != nullptr && merge(shadow->reported, values, reason);
}

Json::Value CShadowBook::show(const std::string& device) const {
    auto found = m_shadows.find(device);
    return found == m_shadows.end() ? Json::Value() : document_of(found->second);
}

Json::Value CShadowBook::show_all() const {
    Json::Value all(Json::objectValue);
    for (const auto& entry : m_shadows) all[entry.first] = document_of(entry.second);
    return all;
}

std::string CShadowBook::save() const { return show_all().toStyledString(); }

bool CShadowBook::load(const std::string& text, std::string& reason) {
    Json::Value all;
    if (!parse(text, all) || !all.isObject()) {
        reason = "not a JSON object";
        return false;
    }
    if (all.size() > kMaxDevices) {
        reason = "too many devices";
        return false;
    }
    std::map<std::string, CShadow> shadows;
    for (const std::string& device : all.getMemberNames()) {
        const Json::Value& entry = all[device];
        CShadow shadow;
        if (!acceptable_device(device) || !entry.isObject()) {
            reason = "bad entry for device \"" + device + "\"";
            return false;
        }
        if (!merge(shadow.desired, entry.get("desired", Json::Value(Json::objectValue)), reason) ||
            !merge(shadow.reported, entry.get("reported", Json::Value(Json::objectValue)), reason)) {
            reason = device + ": " + reason;
            return false;
        }
        const Json::Value& version = entry["version"];
        if (!version.isNull() && !is_version(version)) {
            reason = device + ": the version is not a number";
            return false;
        }
        shadow.version = version.isNull() ? 0 : version.asUInt64();
        shadows[device] = shadow;
    }
    m_shadows.swap(shadows);
    return true;
}

}  // namespace ShadowCloud
