#include "quorel/configmanager/config_file_manager.h"

#include <fstream>

#include "config_file_manager_internal.h"
#include "quorel/configmanager/base64.h"
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
    std::ifstream stream(path, std::ios::in | std::ios::binary);
    Json::CharReaderBuilder builder;
    Json::Value doc;
    std::string errs;
    if (!Json::parseFromStream(builder, stream, &doc, &errs)) {
        QLOG(3, "load json file fail, path:%s, errs:%s.", path.c_str(), errs.c_str());
        return false;
    }
    out.swap(doc);
    return true;
}

bool parse_json(const uint8_t* data, uint32_t size, Json::Value& out, std::string& errs) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    const char* begin = reinterpret_cast<const char*>(data);
    Json::Value doc;
    if (!reader->parse(begin, begin + size, &doc, &errs)) return false;
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
    base64_decode(member->asString(), value);
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
    Json::StreamWriterBuilder builder;
    return Json::writeString(builder, value);
}

}  // namespace Store

bool may_hold_object(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t\r\n");
    return first != std::string::npos && (text[first] == '{' || text[first] == '/');
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
        const Json::Path path(kMetadataPath + name);
        path.make(m_config_json) = value;
    }
    m_changed.store(true, std::memory_order_release);
    m_save_sem.post();
    return true;
}

bool CConfigFileManagerFullamount::load_json_file(Json::Value& out, const std::string& path) {
    if (path.empty()) return Store::load_keychain_document(out);
    return Store::load_json_file(out, path);
}

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
