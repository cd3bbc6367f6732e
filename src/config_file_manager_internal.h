// Pieces shared by the whole-document store and the per-record store. Each piece logs under the
// function name its caller is known by, so the two stores keep their own log texts.
#ifndef QUOREL_CONFIGMANAGER_CONFIG_FILE_MANAGER_INTERNAL_H
#define QUOREL_CONFIGMANAGER_CONFIG_FILE_MANAGER_INTERNAL_H

#include <json/json.h>

#include <cstdint>
#include <memory>
#include <string>

namespace Quorel {
namespace Iot {
namespace Configmanager {
namespace Store {

// Every keychain item the stores write carries this type.
constexpr uint32_t kItemType = 3;
// Longest item or record name the per-record store accepts.
constexpr size_t kMaxItemName = 256;

// Reads and parses the JSON file at path into out (default CharReaderBuilder: comments allowed,
// text after the root ignored). A missing file is a parse failure. Logs as "load_json_file".
// On failure out is left as it was: the reader would leave half a document behind, and a
// truncated default file must not become a half configuration.
bool load_json_file(Json::Value& out, const std::string& path);

// Parses size bytes with a default CharReaderBuilder reader into out; errs receives the parser's
// messages on failure, and out is then left as it was.
bool parse_json(const uint8_t* data, uint32_t size, Json::Value& out, std::string& errs);

// Texts of the two-call keychain read; each begins with the caller's function name.
struct CItemReadTexts {
    const char* function;
    const char* probe_failed;  // item, result, length
    const char* alloc_failed;  // length
    const char* read_failed;   // item, result, length
};

// Size probe (null buffer, length 0), then one read into a buffer of exactly the announced size.
// No retry: an item that grew in between fails. On success buf holds len bytes.
// An announced size above Limits::kMaxDocumentBytes fails the probe (logged with probe_failed)
// before anything is allocated.
bool read_keychain_item(const std::string& item, std::unique_ptr<uint8_t[]>& buf, uint32_t& len,
                        const CItemReadTexts& texts);

// The whole-document store's keychain reader: the item "_configmanager.config.file", parsed with
// its trailing NUL. Logs as "load_json_file".
bool load_keychain_document(Json::Value& out);

// The member "config" of doc, or null when doc is no object or has no such member. Never adds
// members, unlike operator[].
const Json::Value* find_config(const Json::Value& doc);

// Texts of a failed value lookup; each begins with the caller's function name.
struct CValueLookupTexts {
    const char* function;
    const char* no_config;   // no arguments
    const char* bad_member;  // key
};

// Decodes doc["config"][key] (base64 text) into value, cut at its first NUL byte.
bool lookup_config_value(const Json::Value& doc, const std::string& key, std::string& value,
                         const CValueLookupTexts& texts);

// Compact one-line form with a trailing newline, as query results are written.
std::string write_compact(const Json::Value& value);
// Styled form of the persisted items: tab-indented, no trailing newline.
std::string write_styled(const Json::Value& value);

}  // namespace Store
}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
