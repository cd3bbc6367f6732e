#include "json_text.h"

#include <memory>

namespace Quorel {
namespace Iot {
namespace Cmctl {

bool parse_json(const std::string& text, Json::Value& out, std::string* error) {
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    const bool parsed = reader->parse(text.data(), text.data() + text.size(), &out, &errors);
    if (!parsed && error != nullptr) *error = errors;
    return parsed;
}

std::string compact_json(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, value);
}

std::string indented_json(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    return Json::writeString(builder, value) + "\n";
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
