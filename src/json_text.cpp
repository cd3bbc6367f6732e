#include "json_text.h"

#include <algorithm>
#include <cstring>

namespace Quorel {
namespace Iot {
namespace Configmanager {

namespace {

// Members of an object, and elements of an array written one per line, always take at least this
// many bytes each in the styled form (an element: a digit and a line break; a member: its quotes,
// " : ", a value and a line break), so a container cut to limit / kFewestBytes + 1 children still
// runs past limit.
constexpr size_t kFewestBytesPerElement = 2;
constexpr size_t kFewestBytesPerMember = 6;
// Should the writer lay a short array out on one line (its right margin is 74 characters, three
// per element at least), a cut array keeps enough elements to be laid out as the whole one is.
constexpr size_t kMultilineElements = 25;

void copy_comments(const Json::Value& from, Json::Value& to) {
    for (Json::CommentPlacement placement : {Json::commentBefore, Json::commentAfterOnSameLine, Json::commentAfter}) {
        if (from.hasComment(placement)) to.setComment(from.getComment(placement), placement);
    }
}

// A copy of value in which every container keeps at most the children that can show within limit.
Json::Value head_copy(const Json::Value& value, size_t limit) {
    if (value.isArray()) {
        const size_t keep = std::max(limit / kFewestBytesPerElement + 1, kMultilineElements);
        Json::Value copy(Json::arrayValue);
        for (Json::ArrayIndex i = 0; i < value.size() && i < keep; ++i) copy.append(head_copy(value[i], limit));
        copy_comments(value, copy);
        return copy;
    }
    if (value.isObject()) {
        const size_t keep = limit / kFewestBytesPerMember + 1;
        Json::Value copy(Json::objectValue);
        size_t taken = 0;
        for (auto it = value.begin(); it != value.end() && taken < keep; ++it, ++taken) {
            const char* end = nullptr;
            const char* name = it.memberName(&end);
            copy[std::string(name, end)] = head_copy(*it, limit);
        }
        copy_comments(value, copy);
        return copy;
    }
    return value;
}

bool plain_ascii(unsigned char c) { return c >= 0x20 && c < 0x7f && c != '"' && c != '\\'; }

}  // namespace

std::string styled_head(const Json::Value& value, size_t limit) {
    std::string text = head_copy(value, limit).toStyledString();
    if (text.size() > limit) text.resize(limit);
    return text;
}

void append_quoted(std::string& out, const char* text, size_t length) {
    for (size_t i = 0; i < length; ++i) {
        if (!plain_ascii(static_cast<unsigned char>(text[i]))) {
            // Escapes, control characters, non-ASCII text and NUL bytes: the library's own rules.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
            std::string written = Json::FastWriter().write(Json::Value(text, text + length));
#pragma GCC diagnostic pop
            written.pop_back();
            out += written;
            return;
        }
    }
    out += '"';
    out.append(text, length);
    out += '"';
}

namespace {

// Where an envelope's data begins and ends, and its ts; false for any other text.
bool find_plain_envelope(const std::string& text, size_t& data_begin, size_t& data_end, uint64_t& ts);

}  // namespace

bool unwrap_plain_envelope(std::string& text, uint64_t& ts) {
    size_t begin = 0;
    size_t end = 0;
    if (!find_plain_envelope(text, begin, end, ts)) return false;
    text.erase(end);
    text.erase(0, begin);
    return true;
}

namespace {

bool find_plain_envelope(const std::string& text, size_t& data_begin, size_t& data_end, uint64_t& ts) {
    static const char kHead[] = "{\"data\":\"";
    static const char kMiddle[] = "\",\"ts\":";
    const size_t head = sizeof(kHead) - 1;
    const size_t middle = sizeof(kMiddle) - 1;
    if (text.compare(0, head, kHead) != 0) return false;
    size_t i = head;
    while (i < text.size() && plain_ascii(static_cast<unsigned char>(text[i]))) ++i;
    if (text.compare(i, middle, kMiddle) != 0) return false;
    const size_t data_stop = i;
    i += middle;
    // Up to 19 digits always fit an unsigned 64-bit number; a leading zero is read differently.
    const size_t digits_begin = i;
    uint64_t number = 0;
    while (i < text.size() && i - digits_begin < 19 && text[i] >= '0' && text[i] <= '9') {
        number = number * 10 + static_cast<uint64_t>(text[i] - '0');
        ++i;
    }
    const size_t digits = i - digits_begin;
    if (digits == 0 || (digits > 1 && text[digits_begin] == '0')) return false;
    if (i >= text.size() || text[i] != '}') return false;
    ++i;
    if (i < text.size() && text[i] == '\n') ++i;
    if (i != text.size()) return false;
    data_begin = head;
    data_end = data_stop;
    ts = number;
    return true;
}

}  // namespace

}  // namespace Configmanager
}  // namespace Iot
}  // namespace Quorel
