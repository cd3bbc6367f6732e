// The store's two document sources and their merge: the keychain copy (parsed from memory with the
// NUL the keychain stores after it) and the default file (read from a path), both bytes from
// outside the process. The input holds the stored copy, a 0xFF byte, then the default file; without
// a 0xFF byte there is no stored copy, as on first boot, and the default file is the document too.
//
// Why not start(): it reads the keychain (a client that was never initialised refuses at once, so
// the stored copy could not come from the input at all) and starts the saver thread, whose stop
// polls every 30 ms, which would hold the target to a few dozen runs a second. Instead the stored
// document is replayed into a fresh store through the two operations the service uses to change
// it, set_config (each string member of "config", decoded) and set_metadata ("subscribe", the only
// record the service keeps), and merge_config then runs single-threaded, which is what start()
// guarantees it by holding the lock. What replay cannot build: a stored document that is no object
// or whose "config" is no object, and non-string stored values; the unit tests cover those shapes.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <set>
#include <string>

#include "config_file_manager_internal.h"
#include "fuzz_support.h"
#include "quorel/configmanager/base64.h"
#include "quorel/configmanager/config_file_manager.h"

namespace {

using namespace Quorel::Iot::Configmanager;
using Quorel::Iot::Fuzz::fail;
using Quorel::Iot::Fuzz::is_dbus_text;

constexpr uint8_t kSeparator = 0xFF;
// Keys looked up one by one per document; the queries below visit every key anyway.
constexpr size_t kMaxLookups = 32;

// The default file lives in a memfd, reached by path as the service reaches its file.
int g_default_fd = -1;
std::string g_default_path;

void write_default_file(const uint8_t* data, size_t size) {
    if (ftruncate(g_default_fd, 0) != 0) abort();
    size_t done = 0;
    while (done < size) {
        const ssize_t n = pwrite(g_default_fd, data + done, size - done, static_cast<off_t>(done));
        if (n <= 0) abort();
        done += static_cast<size_t>(n);
    }
}

// A failed load must leave its output alone: the store relies on it to fall back.
const Json::Value& untouched_marker() {
    static const Json::Value marker("untouched");
    return marker;
}

void replay_stored(CConfigFileManagerFullamount& store, const Json::Value& doc) {
    const Json::Value* config = Store::find_config(doc);
    if (config != nullptr && config->isObject()) {
        for (const std::string& key : config->getMemberNames()) {
            const Json::Value& encoded = (*config)[key];
            if (!encoded.isString()) continue;
            std::string value;
            base64_decode(encoded.asString(), value);
            // A key or value over the store's limits cannot be replayed; it stays out.
            store.set_config(key, value);
        }
    }
    if (doc.isObject()) {
        static const std::string kMetadata = "metadata";
        const Json::Value* metadata = doc.find(kMetadata.data(), kMetadata.data() + kMetadata.size());
        if (metadata != nullptr && metadata->isObject() && metadata->isMember("subscribe"))
            store.set_metadata("subscribe", (*metadata)["subscribe"]);
    }
}

void collect_keys(const Json::Value& doc, std::set<std::string>& keys) {
    const Json::Value* config = Store::find_config(doc);
    if (config == nullptr || !config->isObject()) return;
    for (const std::string& key : config->getMemberNames()) {
        if (keys.size() >= kMaxLookups) return;
        keys.insert(key);
    }
}

// Query answers go onto the bus as they are.
void check_answer(const char* query, const std::string& out) {
    if (!is_dbus_text(out)) fail("query answer is not valid D-Bus text", query + (": " + out));
    if (out.size() < 3 || out.front() != '[' || out.compare(out.size() - 2, 2, "]\n") != 0)
        fail("query answer is not a JSON array line", query + (": " + out));
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    g_default_fd = memfd_create("fuzz_default_file", MFD_CLOEXEC);
    if (g_default_fd < 0) abort();
    g_default_path = "/proc/self/fd/" + std::to_string(g_default_fd);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const uint8_t* separator = static_cast<const uint8_t*>(memchr(data, kSeparator, size));
    const bool has_stored = separator != nullptr;
    const uint8_t* defaults_begin = has_stored ? separator + 1 : data;
    write_default_file(defaults_begin, static_cast<size_t>(data + size - defaults_begin));

    CConfigFileManagerFullamount store;

    // The keychain copy, with the NUL the keychain stores after the text.
    Json::Value stored = untouched_marker();
    bool stored_ok = false;
    if (has_stored) {
        std::string item(reinterpret_cast<const char*>(data), static_cast<size_t>(separator - data));
        item.push_back('\0');
        std::string errs;
        stored_ok = Store::parse_json(reinterpret_cast<const uint8_t*>(item.data()), static_cast<uint32_t>(item.size()),
                                      stored, errs);
        if (!stored_ok && stored != untouched_marker()) fail("failed keychain parse changed its output", errs);
    }

    Json::Value defaults = untouched_marker();
    const bool defaults_ok = store.load_json_file(defaults, g_default_path);
    if (!defaults_ok && defaults != untouched_marker())
        fail("failed default file load changed its output", defaults.toStyledString());
    if (!defaults_ok) defaults = Json::Value();

    // start(): the keychain copy, else the default file, then the defaults merged in.
    if (stored_ok) {
        replay_stored(store, stored);
    } else {
        replay_stored(store, defaults);
    }
    store.merge_config(defaults);

    std::set<std::string> keys;
    if (stored_ok) collect_keys(stored, keys);
    collect_keys(defaults, keys);
    for (const std::string& key : keys) {
        std::string value;
        store.get_config(key, value);
    }
    // The empty pattern matches every key.
    std::string out;
    if (store.get_config_batch("", out)) check_answer("get_config_batch", out);
    out.clear();
    if (store.get_config_batch_with_ts("", out)) check_answer("get_config_batch_with_ts", out);
    out.clear();
    if (store.get_config_keylist("", out)) check_answer("get_config_keylist", out);
    Json::Value subscribe;
    store.get_metadata("subscribe", subscribe);
    return 0;
}
