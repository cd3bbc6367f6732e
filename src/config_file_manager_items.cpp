#include "config_file_manager_internal.h"
#include "quorel/configmanager/config_file_manager.h"
#include "quorel/keychain/keychain.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {
constexpr const char kLogFile[] = "core-services/config-manager/src/config_file_manager";
constexpr const char kMetadataPrefix[] = "_configmanager.metadata.";
constexpr const char kConfigPrefix[] = "_configmanager.prefix.";
}  // namespace

bool CConfigFileManagerItems::load(const std::string& path) {
    // Defaults are optional: without them get_config only finds what the keychain holds.
    Store::load_json_file(m_json, path);
    return true;
}

bool CConfigFileManagerItems::get_metadata(const std::string& name, Json::Value& out) {
    uint8_t* raw = nullptr;
    uint32_t len = 0;
    if (!read_file(kMetadataPrefix + name, raw, len)) return false;
    const std::unique_ptr<uint8_t[]> buf(raw);
    std::string errs;
    if (!Store::parse_json(buf.get(), len, out, errs)) {
        const std::string content(reinterpret_cast<const char*>(buf.get()), len);
        QLOG(3, "get_metadata, reader fail, content:%s, errs:%s.", content.c_str(), errs.c_str());
        return false;
    }
    return true;
}

bool CConfigFileManagerItems::set_metadata(const std::string& name, const Json::Value& value) {
    return save_record(kMetadataPrefix, name, Store::write_styled(value));
}

bool CConfigFileManagerItems::get_config(const std::string& key, std::string& value) {
    uint8_t* raw = nullptr;
    uint32_t len = 0;
    if (!read_file(kConfigPrefix + key, raw, len)) return get_config_from_json(key, value);
    const std::unique_ptr<uint8_t[]> buf(raw);
    // The stored NUL comes along: callers of this variant get the record's bytes as they are.
    value.assign(reinterpret_cast<const char*>(buf.get()), len);
    return true;
}

bool CConfigFileManagerItems::set_config(const std::string& key, const std::string& value) {
    return save_record(kConfigPrefix, key, value);
}

bool CConfigFileManagerItems::get_config_from_json(const std::string& key, std::string& value) {
    static const Store::CValueLookupTexts kTexts = {"get_config_from_json",
                                                    "get_config_from_json fail, member config error.",
                                                    "get_config_from_json fail, member %s error."};
    return Store::lookup_config_value(m_json, key, value, kTexts);
}

bool CConfigFileManagerItems::read_file(const std::string& item, uint8_t*& buf, uint32_t& len) {
    static const Store::CItemReadTexts kTexts = {"read_file", "read_file, kc_get_item key:%s, ret:%x, key_sec_len:%d.",
                                                 "read_file, new key_sec_len:%d.",
                                                 "read_file, kc_get_item key:%s, ret:%d, key_sec_len:%d."};
    if (item.size() > Store::kMaxItemName) return false;
    std::unique_ptr<uint8_t[]> data;
    if (!Store::read_keychain_item(item, data, len, kTexts)) return false;
    buf = data.release();
    return true;
}

bool CConfigFileManagerItems::save_file(const std::string& item, const uint8_t* data, uint32_t count) {
    if (item.size() > Store::kMaxItemName) return false;
    const int32_t ret = kc_add_item(item.c_str(), data, count, Store::kItemType);
    if (ret == KC_SUCCESS) return true;
    QLOG(1, "save_file, kc_add_item key:%s, count:%d, ret:%d.", item.c_str(), static_cast<int>(count), ret);
    return false;
}

bool CConfigFileManagerItems::save_record(const std::string& prefix, const std::string& name, const std::string& text) {
    // Nothing is deleted for an empty text; the answer only says whether the name would do.
    if (text.empty()) return name.size() <= Store::kMaxItemName;
    return save_file(prefix + name, reinterpret_cast<const uint8_t*>(text.c_str()),
                     static_cast<uint32_t>(text.size() + 1));
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
