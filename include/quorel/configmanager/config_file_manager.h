// The configuration store: the whole configuration as one JSON document in memory
// {"config": {key: base64(value text)}, "metadata": {record: JSON}}, persisted whole as the
// keychain item "_configmanager.config.file" by the saver thread "configmanager_thread".
//
// Threads: queries and changes come from the configuration service's bus reader thread, saves from
// the saver thread, start/stop from the main thread. Every operation holds m_lock while it touches
// the document. The saver holds it only while it renders the document, not during the keychain
// exchange: requests go on meanwhile. The first change after a quiet spell is saved at once; the
// changes that follow are saved together by the next save, which starts a short spacing after the
// previous one (config_file_manager_persistence.cpp), so a burst costs a few keychain writes.
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

// The text a reader answers for an envelope's "data": strings, numbers and booleans as the JSON
// library converts them, objects and arrays as compact JSON (which that conversion refuses).
std::string data_as_text(const Json::Value& data);

// An envelope's "ts" as the JSON library converts it to unsigned 64 bits (true 1, null 0, 1.5 1);
// false for what that conversion refuses (strings, negative numbers, containers, reals >= 2^64).
bool ts_as_uint64(const Json::Value& ts, uint64_t& out);

class CConfigFileManagerFullamount : public Platform::CThread {
public:
    CConfigFileManagerFullamount();
    ~CConfigFileManagerFullamount() override;

    // Keychain copy first, else the default file; then the default file merged in (stored values
    // win). Starts the saver thread. Never fails.
    bool start(const std::string& default_path);
    // Ends the saver without cancelling it, waiting for a save in flight; then saves any unsaved
    // change on the calling thread, retrying for about 5 s. Idempotent.
    void stop();

    bool get_metadata(const std::string& name, Json::Value& out);
    // A "metadata" member of another type than object is replaced by an object holding the
    // record; false only when the document itself is no object.
    bool set_metadata(const std::string& name, const Json::Value& value);
    // One member of the object record name set to *value, or removed when value is null: the
    // record is not copied whole, so a large subscription table is edited at the cost of a key.
    bool set_metadata_entry(const std::string& name, const std::string& member, const Json::Value* value);

    // path empty: the keychain copy; otherwise the file at path.
    bool load_json_file(Json::Value& out, const std::string& path);
    bool save_json_file(const Json::Value& doc);
    bool merge_config(const Json::Value& defaults);

    bool get_config(const std::string& key, std::string& value);
    // An empty value deletes the key. Every call marks the document changed and wakes the saver.
    // False, with nothing changed, for a key or value over its limit or a store that would grow
    // past its limits (limits.h).
    bool set_config(const std::string& key, const std::string& value);
    // Pattern queries (POSIX basic regular expressions, unanchored, within the safe subset of
    // key_pattern.h); results are compact JSON arrays followed by a newline. False also for a
    // refused pattern, a query over its time budget and a result over the reply limit.
    bool get_config_batch(const std::string& name, std::string& out);
    bool get_config_batch_with_ts(const std::string& name, std::string& out);
    bool get_config_keylist(const std::string& name, std::string& out);

protected:
    void threadProc() override;

private:
    Json::Value* metadata_record(const std::string& name) REQUIRES(m_lock);
    void mark_changed();
    // Bytes of keys and stored values in "config", for the store's size limit; recounted when the
    // document was loaded anew.
    size_t config_bytes() REQUIRES(m_lock);

    // Replaces text by the document as the saver stores it, rendered under m_lock.
    void render_document(std::string& text);

    // Guards the document; held across every query, change and rendering for a save.
    Platform::CMutex m_lock;
    Json::Value m_config_json GUARDED_BY(m_lock);
    size_t m_config_bytes GUARDED_BY(m_lock) = 0;
    bool m_config_bytes_known GUARDED_BY(m_lock) = false;

    // Posted by every change and by stop(); waited on by the saver thread only.
    Platform::CSemaphore m_save_sem{0};
    // Set by changes after m_lock is released, cleared by the saver before it takes m_lock:
    // a change made between the clear and the write rides along with that write. A failed save
    // sets it again, so the retry writes the document as it is by then.
    std::atomic<bool> m_changed{false};
};

// Per-record variant: one keychain item per record. The service never creates it.
class CConfigFileManagerItems {
public:
    bool load(const std::string& path);
    bool get_metadata(const std::string& name, Json::Value& out);
    // A "metadata" member of another type than object is replaced by an object holding the
    // record; false only when the document itself is no object.
    bool set_metadata(const std::string& name, const Json::Value& value);
    // One member of the object record name set to *value, or removed when value is null: the
    // record is not copied whole, so a large subscription table is edited at the cost of a key.
    bool set_metadata_entry(const std::string& name, const std::string& member, const Json::Value* value);
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
