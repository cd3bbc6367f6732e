// The store's fast paths for JSON text must give exactly what the JSON library gives, or clients
// would see other answers than they always have. Each input is checked against the library:
// unwrap_plain_envelope against the lenient reader the queries use, append_quoted against the
// compact writer, styled_head against the head of the full styled text, at a limit taken from
// the input's first byte, and render_styled against the library's saved text.
#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz_support.h"
#include "json_text.h"

namespace {

using namespace Quorel::Iot::Configmanager;

[[noreturn]] void fail(const char* what, const std::string& input) { Quorel::Iot::Fuzz::fail(what, input); }

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
void check_envelope(const std::string& input) {
    std::string data = input;
    uint64_t ts = 0;
    if (!unwrap_plain_envelope(data, ts)) {
        if (data != input) fail("changed a text it did not take for an envelope", input);
        return;
    }
    Json::Reader reader;
    Json::Value parsed;
    if (!reader.parse(input, parsed, true) || !parsed.isObject()) fail("read an envelope the reader refuses", input);
    if (!parsed["data"].isString() || parsed["data"].asString() != data) fail("read another data", input);
    if (!parsed["ts"].isIntegral() || parsed["ts"].asUInt64() != ts) fail("read another ts", input);
}

void check_quoted(const std::string& input) {
    std::string quoted;
    append_quoted(quoted, input.data(), input.size());
    std::string written = Json::FastWriter().write(Json::Value(input));
    written.pop_back();
    if (quoted != written) fail("quoted differently", input);
}
#pragma GCC diagnostic pop

void check_styled_head(const std::string& input) {
    if (input.empty()) return;
    const size_t limit = static_cast<unsigned char>(input[0]) * 8;
    Json::CharReaderBuilder builder;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value doc;
    std::string errors;
    try {
        if (!reader->parse(input.data() + 1, input.data() + input.size(), &doc, &errors)) return;
    } catch (const std::exception&) {
        return;
    }
    if (styled_head(doc, limit) != doc.toStyledString().substr(0, limit)) fail("rendered another head", input);
    std::string saved = "not empty";
    render_styled(doc, saved);
    if (saved != Json::writeString(Json::StreamWriterBuilder(), doc)) fail("rendered another saved text", input);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string input(reinterpret_cast<const char*>(data), size);
    check_envelope(input);
    check_quoted(input);
    check_styled_head(input);
    return 0;
}
