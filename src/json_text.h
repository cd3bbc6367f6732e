// Fast paths for the JSON text the store writes and reads most: each gives exactly what the JSON
// library gives for the same input, and hands anything unusual to the library itself.
#ifndef QUOREL_CONFIGMANAGER_JSON_TEXT_H
#define QUOREL_CONFIGMANAGER_JSON_TEXT_H

#include <json/json.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Quorel {
namespace Iot {
namespace Configmanager {

// The first limit bytes (or fewer, when it is shorter) of value.toStyledString(). A log line
// shows only its head, and rendering a store of 100,000 keys for it would cost more than the
// start-up it reports on; containers too large to end within limit are rendered cut short.
std::string styled_head(const Json::Value& value, size_t limit);

// Appends text as the library's quoting (Json::valueToQuotedString) writes it.
void append_quoted(std::string& out, const char* text, size_t length);

// Replaces out by the text Json::writeString gives for value with a default StreamWriterBuilder
// (the store's saved form), reusing out's storage.
void render_styled(const Json::Value& value, std::string& out);

// Recognises the envelope set_config_with_ts stores, {"data":"TEXT","ts":DIGITS} with an optional
// newline, where TEXT needs no unescaping, and replaces text by TEXT in place (no allocation), with
// ts as the library's reader reads them. False, text untouched, for any other text, which the
// caller then parses.
bool unwrap_plain_envelope(std::string& text, uint64_t& ts);

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel

#endif
