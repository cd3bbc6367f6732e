#include <new>

#include "config_file_manager_internal.h"
#include "quorel/configmanager/config_file_manager.h"
#include "quorel/keychain/keychain.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/src/config_file_manager";
constexpr const char kDocumentItem[] = "_configmanager.config.file";
// The saver wakes at least this often to look at m_changed.
constexpr uint32_t kSaverWakeMs = 1000;

// A member value as readable text for the log: strings and scalars as their text, containers
// in styled form (asString would throw on them).
std::string value_text(const Json::Value& value) {
    if (value.isArray() || value.isObject()) return value.toStyledString();
    return value.asString();
}

}  // namespace

namespace Store {

bool read_keychain_item(const std::string& item, std::unique_ptr<uint8_t[]>& buf, uint32_t& len,
                        const CItemReadTexts& texts) {
    uint32_t size = 0;
    int32_t type = static_cast<int32_t>(kItemType);
    int32_t ret = kc_get_item(item.c_str(), nullptr, &size, &type);
    if (ret != KC_ERR_SHORT_BUFFER || size == 0) {
        log_print(3, "color", "tag", kLogFile, texts.function, __LINE__, texts.probe_failed, item.c_str(),
                  static_cast<unsigned>(ret), static_cast<int>(size));
        return false;
    }
    std::unique_ptr<uint8_t[]> data(new (std::nothrow) uint8_t[size]);
    if (!data) {
        log_print(3, "color", "tag", kLogFile, texts.function, __LINE__, texts.alloc_failed, static_cast<int>(size));
        return false;
    }
    ret = kc_get_item(item.c_str(), data.get(), &size, &type);
    if (ret != KC_SUCCESS || size == 0) {
        log_print(3, "color", "tag", kLogFile, texts.function, __LINE__, texts.read_failed, item.c_str(), ret,
                  static_cast<int>(size));
        return false;
    }
    buf = std::move(data);
    len = size;
    return true;
}

bool load_keychain_document(Json::Value& out) {
    static const CItemReadTexts kTexts = {
        "load_json_file", "load_json_file, kc_get_item key:%s, ret:%x, key_sec_len:%d.",
        "load_json_file, new key_sec_len:%d.", "load_json_file, kc_get_item key:%s, ret:%x, key_sec_len:%d."};
    std::unique_ptr<uint8_t[]> buf;
    uint32_t len = 0;
    if (!read_keychain_item(kDocumentItem, buf, len, kTexts)) return false;
    std::string errs;
    // The stored NUL is part of the bytes; the reader takes it for the end of the text.
    if (!parse_json(buf.get(), len, out, errs)) {
        log_print(3, "color", "tag", kLogFile, "load_json_file", __LINE__, "load json file fail, key:%s, errs:%s.",
                  kDocumentItem, errs.c_str());
        return false;
    }
    return true;
}

}  // namespace Store

bool CConfigFileManagerFullamount::start(const std::string& default_path) {
    Platform::CMutexGuard guard(m_lock);
    // First boot has no keychain copy: the default file is the document until the first change.
    if (!load_json_file(m_config_json, "")) load_json_file(m_config_json, default_path);
    Json::Value defaults;
    load_json_file(defaults, default_path);
    merge_config(defaults);
    CThread::start();
    return true;
}

void CConfigFileManagerFullamount::stop() {
    m_save_sem.post();
    CThread::stop();
}

// Runs inside start(), which holds m_lock (not re-taken: the mutex is not recursive).
bool CConfigFileManagerFullamount::merge_config(const Json::Value& defaults) NO_THREAD_SAFETY_ANALYSIS {
    const Json::Value* default_config = Store::find_config(defaults);
    if (default_config != nullptr && default_config->isObject()) {
        for (const std::string& name : default_config->getMemberNames()) {
            // A stored document of another shape cannot take defaults; keep it as it is.
            if (!m_config_json.isNull() && !m_config_json.isObject()) break;
            Json::Value& config = m_config_json["config"];
            if (!config.isNull() && !config.isObject()) break;
            if (config.isMember(name)) continue;
            const Json::Value& value = (*default_config)[name];
            config[name] = value;
            m_changed.store(true, std::memory_order_release);
            QLOG(1, "Key %s Value %s is new config", name.c_str(), value_text(value).c_str());
        }
    }
    QLOG(1, "The merged config: %s", m_config_json.toStyledString().c_str());
    const bool changed = m_changed.load(std::memory_order_acquire);
    if (changed) m_save_sem.post();
    return changed;
}

bool CConfigFileManagerFullamount::save_json_file(const Json::Value& doc) {
    const std::string text = Store::write_styled(doc);
    const uint32_t count = static_cast<uint32_t>(text.size() + 1);
    // c_str() supplies the NUL that is stored with the text.
    const int32_t ret =
        kc_add_item(kDocumentItem, reinterpret_cast<const uint8_t*>(text.c_str()), count, Store::kItemType);
    if (ret == KC_SUCCESS) return true;
    QLOG(1, "save_json_file, kc_add_item key:%s, count:%d, ret:%d.", kDocumentItem, static_cast<int>(count), ret);
    return false;
}

void CConfigFileManagerFullamount::threadProc() {
    while (is_running()) {
        m_save_sem.wait(kSaverWakeMs);
        // Cleared before the lock: a change that lands while we wait for the lock is in this
        // save; one that lands after it sets the flag again and gets the next save.
        if (!m_changed.exchange(false, std::memory_order_acq_rel)) continue;
        Platform::CMutexGuard guard(m_lock);
        save_json_file(m_config_json);
    }
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
