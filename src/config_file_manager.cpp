#include "quorel/configmanager/config_file_manager.h"

#include <sys/stat.h>

#include <exception>
#include <fstream>

#include "config_file_manager_internal.h"
#include "json_text.h"
#include "quorel/configmanager/base64.h"
#include "quorel/configmanager/limits.h"
#include "quorel/log/log.h"

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {
constexpr const char kLogFile[] = "core-services/config-manager/src/config_file_manager";
constexpr const char kMetadataPath[] = "metadata.";
}  // namespace

namespace Store {

bool load_json_file(Json::Value& out, const std::string& path) {
    std::string errs;
    Json::Value doc;
    struct stat info = {};
    if (stat(path.c_str(), &info) == 0 && static_cast<uint64_t>(info.st_size) > Limits::kMaxDocumentBytes) {
        errs = "file larger than " + std::to_string(Limits::kMaxDocumentBytes) + " bytes";
    } else {
        std::ifstream stream(path, std::ios::in | std::ios::binary);
        Json::CharReaderBuilder builder;
        try {
            if (Json::parseFromStream(builder, stream, &doc, &errs)) {
                out.swap(doc);
                return true;
            }
        } catch (const std::exception& e) {
            // The reader throws instead of failing on documents nested deeper than its limit.
            errs = e.what();
        }
    }
    QLOG(3, "load json file fail, path:%s, errs:%s.", path.c_str(), errs.c_str());
    return false;
}

bool parse_json(const uint8_t* data, uint32_t size, Json::Value& out, std::string& errs) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const char* begin = reinterpret_cast<const char*>(data);
    Json::Value doc;
    try {
        if (!reader->parse(begin, begin + size, &doc, &errs)) return false;
    } catch (const std::exception& e) {
        // Nested deeper than the reader's limit: a document like any other that does not parse.
        errs = e.what();
        return false;
    }
    out.swap(doc);
    return true;
}

const Json::Value* find_config(const Json::Value& doc) {
    static const std::string kConfig = "config";
    return doc.isObject() ? doc.find(kConfig.data(), kConfig.data() + kConfig.size()) : nullptr;
}

bool lookup_config_value(const Json::Value& doc, const std::string& key, std::string& value,
                         const CValueLookupTexts& texts) {
    // Const lookups only: a failed read must not add members to the document.
    const Json::Value* config = find_config(doc);
    if (config == nullptr || !config->isObject()) {
        log_print(3, "color", "tag", kLogFile, texts.function, __LINE__, "%s", texts.no_config);
        return false;
    }
    const Json::Value* member = config->find(key.data(), key.data() + key.size());
    if (member == nullptr || !member->isString()) {
        log_print(3, "color", "tag", kLogFile, texts.function, __LINE__, texts.bad_member, key.c_str());
        return false;
    }
    const char* begin = nullptr;
    const char* end = nullptr;
    member->getString(&begin, &end);
    base64_decode(begin, static_cast<size_t>(end - begin), value);
    return true;
}

// FastWriter is the compact form the bus clients parse; newer jsoncpp marks it deprecated.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
std::string write_compact(const Json::Value& value) {
    Json::FastWriter writer;
    return writer.write(value);
}
#pragma GCC diagnostic pop

std::string write_styled(const Json::Value& value) {
    std::string text;
    render_styled(value, text);
    return text;
}

}  // namespace Store

bool may_hold_object(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    return first != std::string::npos && (text[first] == '{' || text[first] == '/');
}

std::string data_as_text(const Json::Value& data) {
    if (data.isConvertibleTo(Json::stringValue)) return data.asString();
    // Objects and arrays, which the plain conversion refuses, as compact JSON.
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, data);
}

bool ts_as_uint64(const Json::Value& ts, uint64_t& out) {
    // The JSON library's own conversion for everything it converts without throwing (true 1,
    // null 0, 1.5 1); a real at or beyond 2^64 is refused here because converting it is undefined.
    switch (ts.type()) {
        case Json::nullValue:
        case Json::booleanValue:
        case Json::uintValue:
            out = ts.asUInt64();
            return true;
        case Json::intValue:
            if (ts.asInt64() < 0) return false;
            out = ts.asUInt64();
            return true;
        case Json::realValue: {
            const double real = ts.asDouble();
            if (!(real >= 0.0 && real < 18446744073709551616.0)) return false;
            out = ts.asUInt64();
            return true;
        }
        default:
            return false;
    }
}

CConfigFileManagerFullamount::CConfigFileManagerFullamount()
    : Platform::CThread("configmanager_thread", Platform::CThread::POLICY_NORMAL, 64, 0) {}

CConfigFileManagerFullamount::~CConfigFileManagerFullamount() {
    // The saver thread reads the fields below; it must be gone before they are.
    stop();
}

bool CConfigFileManagerFullamount::get_metadata(const std::string& name, Json::Value& out) {
    Platform::CMutexGuard guard(m_lock);
    const Json::Path path(kMetadataPath + name);
    out = path.resolve(m_config_json);
    return !out.empty();
}

// Writes without m_lock: the only caller serialises metadata writes with its own subscription
// lock, and the saver may serialise the document concurrently (a known, accepted race).
bool CConfigFileManagerFullamount::set_metadata(const std::string& name, const Json::Value& value) {
    {
        // The caller's subscription lock does not keep the saver from rendering the document
        // meanwhile; the document lock does.
        Platform::CMutexGuard guard(m_lock);
        Json::Value* record = metadata_record(name);
        if (record == nullptr) return false;
        *record = value;
    }
    mark_changed();
    return true;
}

bool CConfigFileManagerFullamount::set_metadata_entry(const std::string& name, const std::string& member,
                                                      const Json::Value* value) {
    {
        Platform::CMutexGuard guard(m_lock);
        Json::Value* record = metadata_record(name);
        if (record == nullptr) return false;
        if (!record->isObject()) *record = Json::Value(Json::objectValue);
        if (value != nullptr) {
            (*record)[member] = *value;
        } else {
            record->removeMember(member);
        }
    }
    mark_changed();
    return true;
}

Json::Value* CConfigFileManagerFullamount::metadata_record(const std::string& name) {
    // A document of another type cannot take a record; a "metadata" of another type gives way to
    // an object, so the record is kept rather than lost (a stored document may hold anything).
    if (!m_config_json.isNull() && !m_config_json.isObject()) {
        QLOG(3, "set_metadata, document is no object, name:%s.", name.c_str());
        return nullptr;
    }
    Json::Value& metadata = m_config_json["metadata"];
    if (!metadata.isNull() && !metadata.isObject()) metadata = Json::Value(Json::objectValue);
    const Json::Path path(kMetadataPath + name);
    try {
        return &path.make(m_config_json);
    } catch (const std::exception& e) {
        // A deeper level of the dotted path that holds a scalar.
        QLOG(3, "set_metadata, path:%s, exception:%s.", name.c_str(), e.what());
        return nullptr;
    }
}

void CConfigFileManagerFullamount::mark_changed() {
    m_changed.store(true, std::memory_order_release);
    m_save_sem.post();
}

bool CConfigFileManagerFullamount::load_json_file(Json::Value& out, const std::string& path) {
    if (path.empty()) return Store::load_keychain_document(out);
    return Store::load_json_file(out, path);
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
