#include <algorithm>
#include <exception>
#include <new>

#include "config_file_manager_internal.h"
#include "json_text.h"
#include "quorel/configmanager/config_file_manager.h"
#include "quorel/configmanager/limits.h"
#include "quorel/keychain/keychain.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/src/config_file_manager";
constexpr const char kDocumentItem[] = "_configmanager.config.file";
// The saver keeps its rendering buffer between saves up to this size (a store of some 10,000 keys).
constexpr size_t kKeptTextBytes = 1024 * 1024;
// The saver wakes at least this often to look at m_changed.
constexpr uint32_t kSaverWakeMs = 1000;
// Saves start at least kSaveSpacingMs apart, and further apart for a document that takes longer
// to render, so that rendering takes at most about 1 / kSaveDutyFactor of the time. This bounds the
// window in which a set answered 0 is in memory only (about kSaveSpacingMs plus a save for a
// small store) and keeps a burst of changes to a few keychain writes.
constexpr uint64_t kSaveSpacingMs = 50;
constexpr uint64_t kSaveDutyFactor = 5;
// A sleep within the spacing looks at stop() this often.
constexpr uint32_t kSpacingStepMs = 50;
// A failed save is tried again after kRetryFirstMs, then after twice the previous pause, up to
// kRetryMaxMs: a keychain that is back is caught up with soon, one that stays away is not
// hammered.
constexpr uint32_t kRetryFirstMs = 100;
constexpr uint32_t kRetryMaxMs = 5000;
// The last save at stop keeps trying for about this long before the changes are given up: the
// process is going away, and whoever stops it should not wait much longer.
constexpr uint32_t kLastSaveBudgetMs = 5000;
// stop() says once that a save in flight is holding it up when that lasts this long.
constexpr uint32_t kStopPatienceMs = 3000;
constexpr uint32_t kStopPollMs = 5;

// A member value as readable text for the log: strings and scalars as their text, containers
// in styled form (asString would throw on them).
std::string value_text(const Json::Value& value) {
    if (value.isArray() || value.isObject()) return value.toStyledString();
    return value.asString();
}

// One write of the rendered document as the document item; count receives the bytes written (the
// text and its NUL). The checked write, so that a keychain the bus cannot reach counts as a
// failure to retry.
int32_t write_document_text(const std::string& text, uint32_t& count) {
    count = static_cast<uint32_t>(text.size() + 1);
    // c_str() supplies the NUL that is stored with the text.
    return kc_add_item_checked(kDocumentItem, reinterpret_cast<const uint8_t*>(text.c_str()), count, Store::kItemType);
}

void log_save_failure(uint32_t count, int32_t ret) {
    log_print(1, "color", "tag", kLogFile, "save_json_file", __LINE__,
              "save_json_file, kc_add_item key:%s, count:%d, ret:%d.", kDocumentItem, static_cast<int>(count), ret);
}

// A run of failed saves: the pause before the next attempt, and which failures are worth a line.
// Used by one thread at a time (the saver, or the thread that stops the store).
class CSaveRetry {
public:
    // Records a failed attempt; true when it is to be logged: the first of the run, one whose
    // result differs from the previous one, and the 2nd, 4th, 8th... so that a keychain away for
    // an hour costs about ten lines, not one per attempt.
    bool failed(int32_t ret) {
        ++m_failures;
        const bool news = m_failures == 1 || ret != m_last_ret || (m_failures & (m_failures - 1)) == 0;
        m_last_ret = ret;
        m_pause_ms = m_failures == 1 ? kRetryFirstMs : std::min(m_pause_ms * 2, kRetryMaxMs);
        return news;
    }
    // Ends the run; the number of failed attempts it had.
    uint32_t succeeded() {
        const uint32_t failures = m_failures;
        m_failures = 0;
        m_pause_ms = 0;
        return failures;
    }
    bool failing() const { return m_failures != 0; }
    uint32_t pause_ms() const { return m_pause_ms; }

private:
    uint32_t m_failures = 0;
    int32_t m_last_ret = 0;
    uint32_t m_pause_ms = 0;
};

// One attempt at saving the rendered document within a run of retries, logged as save_json_file;
// the keychain's result.
int32_t attempt_save(const std::string& text, CSaveRetry& retry) {
    uint32_t count = 0;
    const int32_t ret = write_document_text(text, count);
    if (ret == KC_SUCCESS) {
        const uint32_t failures = retry.succeeded();
        if (failures != 0) {
            log_print(1, "color", "tag", kLogFile, "save_json_file", __LINE__,
                      "save_json_file, saved after %u failed attempts.", failures);
        }
    } else if (retry.failed(ret)) {
        log_save_failure(count, ret);
    }
    return ret;
}

}  // namespace

namespace Store {

bool read_keychain_item(const std::string& item, std::unique_ptr<uint8_t[]>& buf, uint32_t& len,
                        const CItemReadTexts& texts) {
    uint32_t size = 0;
    int32_t type = static_cast<int32_t>(kItemType);
    int32_t ret = kc_get_item(item.c_str(), nullptr, &size, &type);
    // Whatever size the service announces is allocated below; past the limit it is refused first.
    if (ret != KC_ERR_SHORT_BUFFER || size == 0 || size > Limits::kMaxDocumentBytes) {
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
    bool parsed = false;
    try {
        // The stored NUL is part of the bytes; the reader takes it for the end of the text.
        parsed = parse_json(buf.get(), len, out, errs);
    } catch (const std::exception& e) {
        // jsoncpp throws rather than fails on some input (nesting deeper than its stack limit);
        // such a copy is as broken as one that does not parse, and start must go on without it.
        errs = e.what();
    }
    if (!parsed) {
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
    const bool from_keychain = load_json_file(m_config_json, "");
    const bool from_default_file = !from_keychain && load_json_file(m_config_json, default_path);
    if (from_default_file) {
        // Merging the default file into itself adds nothing: it is not read and parsed a second
        // time (that was most of a large store's start-up), and there are no defaults to add.
        merge_config(Json::Value());
    } else {
        Json::Value defaults;
        load_json_file(defaults, default_path);
        merge_config(defaults);
    }
    // The document is a new one: its size is counted again at the first change.
    m_config_bytes_known = false;
    CThread::start();
    return true;
}

// The saver is never cancelled: cancelled inside a keychain exchange, it would leave the keychain
// client's and libdbus's locks held, and every later keychain call of the process would hang. So
// stop asks it to end, wakes it and waits for it; a save in flight ends by itself (at the latest
// at the bus's reply time-out), and the saver takes no new one once asked to end. What is still
// unsaved then is saved here, on the stopping thread, whatever the saver's timing was.
void CConfigFileManagerFullamount::stop() {
    // Only a running store saves here: one never started has not read the keychain copy and must
    // not replace it, and one already stopped has had its last save (stop() is idempotent).
    const bool was_running = !is_stopped();
    request_stop();
    m_save_sem.post();
    if (get_tid() != CThread::current_tid()) {
        const uint64_t begin = Platform::tick_ms();
        bool told = false;
        while (!is_stopped()) {
            if (!told && Platform::tick_ms() - begin >= kStopPatienceMs) {
                QLOG(1, "stop, waiting for the save in flight to end.");
                told = true;
            }
            CThread::sleep_ms(kStopPollMs);
        }
    }
    if (!was_running || !m_changed.exchange(false, std::memory_order_acq_rel)) return;

    CSaveRetry retry;
    const uint64_t deadline = Platform::tick_ms() + kLastSaveBudgetMs;
    int32_t ret = KC_SUCCESS;
    std::string text;
    for (;;) {
        render_document(text);
        ret = attempt_save(text, retry);
        if (ret == KC_SUCCESS) return;
        // A client without a connection gets none while the process is ending: waiting is futile.
        if (ret == KC_ERR_NOT_INITIALIZED) break;
        const uint64_t now = Platform::tick_ms();
        if (now >= deadline) break;
        CThread::sleep_ms(static_cast<uint32_t>(std::min<uint64_t>(retry.pause_ms(), deadline - now)));
    }
    QLOG(3, "stop, changes were lost: the keychain did not take the document, ret:%d.", ret);
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
    QLOG(1, "The merged config: %s", styled_head(m_config_json, LOG_MESSAGE_MAX).c_str());
    const bool changed = m_changed.load(std::memory_order_acquire);
    if (changed) m_save_sem.post();
    return changed;
}

void CConfigFileManagerFullamount::render_document(std::string& text) {
    Platform::CMutexGuard guard(m_lock);
    render_styled(m_config_json, text);
}

bool CConfigFileManagerFullamount::save_json_file(const Json::Value& doc) {
    uint32_t count = 0;
    const int32_t ret = write_document_text(Store::write_styled(doc), count);
    if (ret == KC_SUCCESS) return true;
    log_save_failure(count, ret);
    return false;
}

void CConfigFileManagerFullamount::threadProc() {
    CSaveRetry retry;
    // tick_ms() before which no save starts: after a failure the retry pause, after a success the
    // spacing that turns a burst of changes into a few saves.
    uint64_t not_before = 0;
    // Kept from save to save, so that a stream of changes does not allocate and free the whole
    // text, and return its pages to the system, for every save.
    std::string text;
    while (is_running()) {
        // Idle, the first change wakes the saver at once, so a lone set is saved without delay.
        if (!m_changed.load(std::memory_order_acquire)) m_save_sem.wait_for(kSaverWakeMs);
        // Within the spacing the saver sleeps rather than waits on the semaphore: a burst of sets
        // then costs each set an uncontended post, not a wake-up of this thread.
        for (uint64_t now = Platform::tick_ms(); now < not_before && is_running(); now = Platform::tick_ms()) {
            CThread::sleep_ms(static_cast<uint32_t>(std::min<uint64_t>(not_before - now, kSpacingStepMs)));
        }
        // One pass serves every change posted so far.
        while (m_save_sem.try_wait()) {
        }
        // stop() saves what is left on its own thread once this loop has ended.
        if (!is_running()) break;
        // Cleared before the document is rendered: a change that lands meanwhile is in this save
        // or sets the flag again for the next one.
        if (!m_changed.exchange(false, std::memory_order_acq_rel)) continue;
        const uint64_t begin = Platform::tick_ms();
        render_document(text);
        const uint64_t rendered = Platform::tick_ms();
        const int32_t ret = attempt_save(text, retry);
        const uint64_t end = Platform::tick_ms();
        // A large store's text is not worth holding on to between saves.
        if (text.capacity() > kKeptTextBytes) std::string().swap(text);
        if (ret == KC_SUCCESS) {
            // A slow keychain costs this process nothing while it works: only the rendering counts.
            not_before = std::max(begin + kSaveSpacingMs, end + kSaveDutyFactor * (rendered - begin));
        } else {
            // Unsaved again: the retry, or stop(), writes the document as it is by then.
            m_changed.store(true, std::memory_order_release);
            not_before = end + retry.pause_ms();
        }
    }
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
