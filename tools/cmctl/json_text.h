// JSON text in and out, through jsoncpp's builder interfaces (its older reader and writer classes
// are deprecated).
#ifndef CMCTL_JSON_TEXT_H
#define CMCTL_JSON_TEXT_H

#include <json/json.h>

#include <string>

namespace Quorel {
namespace Iot {
namespace Cmctl {

// False when text is not one JSON value; out is then of no use.
bool parse_json(const std::string& text, Json::Value& out, std::string* error = nullptr);
// One line, no spaces, no trailing newline.
std::string compact_json(const Json::Value& value);
// Tab-indented, the way the service writes its documents, ending with a newline.
std::string indented_json(const Json::Value& value);

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel

#endif
