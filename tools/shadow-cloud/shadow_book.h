// CShadowBook: the cloud's device shadows, as the simulator keeps them. One document per device
// (desired state, reported state, version), keyed by the device's topic suffix "<product key>/<device
// name>". It answers the documents a gateway publishes on "/shadow/update/<device>" and builds the
// "control" documents the cloud pushes on "/shadow/get/<device>".
//
// Everything here is plain data and text: the MQTT side (CCloudLink) hands documents in and sends
// what comes out, so the same rules can be tested and fuzzed without a broker.
#ifndef SHADOW_CLOUD_SHADOW_BOOK_H
#define SHADOW_CLOUD_SHADOW_BOOK_H

#include <json/json.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace ShadowCloud {

constexpr const char kUpdatePrefix[] = "/shadow/update/";
constexpr const char kGetPrefix[] = "/shadow/get/";

// What the cloud holds for one device.
struct CShadow {
    Json::Value desired{Json::objectValue};
    Json::Value reported{Json::objectValue};
    uint64_t version = 0;
};

// A document to publish: topic and text.
struct COutgoing {
    std::string topic;
    std::string payload;
};

// What came of one received document, for the simulator's printed trace.
struct CHandled {
    std::string device;
    std::string method;               // "" when the document was refused
    std::string note;                 // why it was refused or ignored; "" when it was used
    std::vector<COutgoing> outgoing;  // answers to publish
};

class CShadowBook {
public:
    // Bounds that keep a hostile broker client from growing the simulator without limit.
    static constexpr size_t kMaxDevices = 10000;
    static constexpr size_t kMaxMembers = 1024;  // per desired / reported object
    static constexpr size_t kMaxDocument = 1024 * 1024;

    // A document the gateway published on topic ("/shadow/update/<device>"): "get" is answered
    // with a "reply" carrying desired, reported and the version; "update" merges its
    // state.reported (a null member removes it) and takes its version when that is a number.
    CHandled handle_update(const std::string& topic, const std::string& payload);

    // Merges values into the device's desired state (a null removes a member), raises the
    // version and returns the "control" document to push. False with a reason when the device
    // or the values are not acceptable.
    bool desire(const std::string& device, const Json::Value& values, COutgoing& control, std::string& reason);
    // Merges values into the cloud's copy of the reported state, as if the gateway had reported
    // them; nothing is published.
    bool report(const std::string& device, const Json::Value& values, std::string& reason);

    bool has(const std::string& device) const { return m_shadows.count(device) != 0; }
    // {"desired":…, "reported":…, "version":…}, or null for an unknown device.
    Json::Value show(const std::string& device) const;
    // Every device's document, by device.
    Json::Value show_all() const;

    // The whole book as one JSON text, and back. load refuses (false, book unchanged) a text that
    // is not such a document.
    std::string save() const;
    bool load(const std::string& text, std::string& reason);

    // "pk01/gw-7" from "/shadow/update/pk01/gw-7"; false for any other topic.
    static bool device_of(const std::string& topic, const std::string& prefix, std::string& device);
    // A device as a topic names it: UTF-8 without NUL or wildcards, of a sane length. The gateway
    // publishes on "/shadow/update//" while it does not know its own identity; that is answered too.
    static bool acceptable_device(const std::string& device);
    // A device name as the command line gives it: "<product key>/<device name>", UTF-8, no
    // wildcard or NUL, of a sane length.
    static bool valid_device(const std::string& device);
    // Parses a JSON text of at most kMaxDocument bytes and bounded nesting; never throws.
    static bool parse(const std::string& text, Json::Value& value);
    // "key=value" from the command line: the value is taken as JSON when it is a number, true,
    // false, null or a quoted string, and as plain text otherwise.
    static bool parse_assignment(const std::string& argument, std::string& key, Json::Value& value);
    static std::string compact(const Json::Value& value);

private:
    CShadow* find_or_add(const std::string& device, std::string& reason);
    static bool merge(Json::Value& into, const Json::Value& values, std::string& reason);
    static Json::Value document_of(const CShadow& shadow);

    std::map<std::string, CShadow> m_shadows;
};

}  // namespace ShadowCloud

#endif
