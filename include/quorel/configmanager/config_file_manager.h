// The configuration store: the whole configuration as one JSON document in memory
// {"config": {key: base64(value text)}, "metadata": {record: JSON}}, persisted whole as the
// keychain item "_configmanager.config.file" by the saver thread "configmanager_thread".
//
// Threads: queries and changes come from the configuration service's bus reader thread, saves from
// the saver thread, start/stop from the main thread. Every operation holds m_lock while it touches
// the document, and the saver holds it across the whole keychain save: requests arriving during a
// save wait, which batches the changes of a burst into few saves.
// Failures are reported as false (output arguments then untouched) and logged.
#ifndef QUOREL_CONFIGMANAGER_CONFIG_FILE_MANAGER_H
#define QUOREL_CONFIGMANAGER_CONFIG_FILE_MANAGER_H

#include <json/json.h>

#include <atomic>
#include <cstdint>
#include <string>

#include "quorel/platform/mutex.h"
#include "quorel/platform/semaphore.h"
#include "quorel/platform/thread.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

// False when text cannot hold a JSON object (its first non-blank character opens neither an object
// nor a comment): such a value text is never an envelope, and need not be parsed to know it.
bool may_hold_object(const std::string& text);

class CConfigFileManagerFullamount : public Platform::CThread {
public:
    CConfigFileManagerFullamount();
    ~CConfigFileManagerFullamount() override;

    // Keychain copy first, else the default file; then the default file merged in (stored values
    // win). Starts the saver thread. Never fails.
    bool start(const std::string& default_path);
    // Wakes the saver and stops it (3000 ms grace); a pending change is saved if it gets there.
    void stop();

    bool get_metadata(const std::string& name, Json::Value& out);
    bool set_metadata(const std::string& name, const Json::Value& value);

    // path empty: the keychain copy; otherwise the file at path.
    bool load_json_file(Json::Value& out, const std::string& path);
    bool save_json_file(const Json::Value& doc);
    bool merge_config(const Json::Value& defaults);

    bool get_config(const std::string& key, std::string& value);
    // An empty value deletes the key. Every call marks the document changed and wakes the saver.
    bool set_config(const std::string& key, const std::string& value);
    // Pattern queries (POSIX basic regular expressions, unanchored); results are compact JSON
    // arrays followed by a newline.
    bool get_config_batch(const std::string& name, std::string& out);
    bool get_config_batch_with_ts(const std::string& name, std::string& out);
    bool get_config_keylist(const std::string& name, std::string& out);

protected:
    void threadProc() override;

private:
    // Guards the document; held across every query, change and whole keychain save.
    Platform::CMutex m_lock;
    Json::Value m_config_json GUARDED_BY(m_lock);

    // Posted by every change and by stop(); waited on by the saver thread only.
    Platform::CSemaphore m_save_sem{0};
    // Set by changes after m_lock is released, cleared by the saver before it takes m_lock:
    // a change made between the clear and the write rides along with that write.
    std::atomic<bool> m_changed{false};
};

// Per-record variant: one keychain item per record. The service never creates it.
class CConfigFileManagerItems {
public:
    bool load(const std::string& path);
    bool get_metadata(const std::string& name, Json::Value& out);
    bool set_metadata(const std::string& name, const Json::Value& value);
    bool get_config(const std::string& key, std::string& value);
    bool set_config(const std::string& key, const std::string& value);
    bool get_config_from_json(const std::string& key, std::string& value);
    // buf is new[]'ed by the call and owned by the caller on success.
    bool read_file(const std::string& item, uint8_t*& buf, uint32_t& len);
    bool save_file(const std::string& item, const uint8_t* data, uint32_t count);

    // ---- private section: owned by the store's implementation ----
private:
    // Stores text under prefix + name (text + NUL); an empty text stores nothing.
    bool save_record(const std::string& prefix, const std::string& name, const std::string& text);

    // Default values (layout of the whole-document store), read by load(); single-threaded use.
    Json::Value m_json;
};

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
