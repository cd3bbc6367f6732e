#include "json_text.h"

#include <algorithm>
#include <charconv>
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

// The letter of the library's two-character escape for c, or 0 where it has none.
char short_escape(unsigned char c) {
    switch (c) {
        case '"':
            return '"';
        case '\\':
            return '\\';
        case '\b':
            return 'b';
        case '\f':
            return 'f';
        case '\n':
            return 'n';
        case '\r':
            return 'r';
        case '\t':
            return 't';
        default:
            return 0;
    }
}

// The text Json::writeString gives with a default StreamWriterBuilder (tab indentation, " : "
// between a member's name and value, no final newline), for documents without comments and without
// non-empty arrays; those take the library's own writer, whose line-breaking of arrays depends on
// their rendered width. Writes straight into the caller's buffer: the library's writer goes
// through a growing string stream and a copy of it, which for a large store costs more than the
// rest of a save.
class CStyledWriter {
public:
    explicit CStyledWriter(std::string& out) : m_out(out) {}

    static bool takes(const Json::Value& value) {
        for (Json::CommentPlacement placement :
             {Json::commentBefore, Json::commentAfterOnSameLine, Json::commentAfter}) {
            if (value.hasComment(placement)) return false;
        }
        if (value.isArray()) return value.empty();
        if (!value.isObject()) return true;
        const Json::Value::const_iterator last = value.end();
        for (Json::Value::const_iterator it = value.begin(); it != last; ++it) {
            if (!takes(*it)) return false;
        }
        return true;
    }

    void write(const Json::Value& value) {
        switch (value.type()) {
            case Json::nullValue:
                m_out += "null";
                break;
            case Json::intValue:
                append_number(value.asLargestInt());
                break;
            case Json::uintValue:
                append_number(value.asLargestUInt());
                break;
            case Json::realValue:
                m_out += Json::valueToString(value.asDouble());
                break;
            case Json::stringValue: {
                const char* begin = nullptr;
                const char* end = nullptr;
                // The library writes nothing for a string value without storage.
                if (value.getString(&begin, &end)) append_quoted(m_out, begin, static_cast<size_t>(end - begin));
                break;
            }
            case Json::booleanValue:
                m_out += value.asBool() ? "true" : "false";
                break;
            case Json::arrayValue:
                m_out += "[]";
                break;
            case Json::objectValue:
                write_object(value);
                break;
        }
    }

private:
    void write_object(const Json::Value& value) {
        if (value.empty()) {
            m_out += "{}";
            return;
        }
        start_line();
        m_out += '{';
        m_indent += '\t';
        const Json::Value::const_iterator last = value.end();
        for (Json::Value::const_iterator it = value.begin(); it != last;) {
            const char* end = nullptr;
            const char* name = it.memberName(&end);
            start_line();
            append_quoted(m_out, name, static_cast<size_t>(end - name));
            m_out += " : ";
            write(*it);
            if (++it != last) m_out += ',';
        }
        m_indent.pop_back();
        start_line();
        m_out += '}';
    }

    // A container's brace or a member begins a line of its own, but not at the very start.
    void start_line() {
        if (!m_out.empty()) {
            m_out += '\n';
            m_out += m_indent;
        }
    }

    template <typename Number>
    void append_number(Number number) {
        char digits[24];
        const std::to_chars_result result = std::to_chars(digits, digits + sizeof(digits), number);
        m_out.append(digits, result.ptr);
    }

    std::string& m_out;
    std::string m_indent;
};

}  // namespace

std::string styled_head(const Json::Value& value, size_t limit) {
    std::string text = head_copy(value, limit).toStyledString();
    if (text.size() > limit) text.resize(limit);
    return text;
}

void append_quoted(std::string& out, const char* text, size_t length) {
    const size_t start = out.size();
    out += '"';
    for (size_t i = 0; i < length; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (plain_ascii(c)) {
            out += static_cast<char>(c);
        } else if (const char escape = short_escape(c)) {
            out += '\\';
            out += escape;
        } else {
            // Other control characters, non-ASCII text and NUL bytes: the library's own rules.
            out.resize(start);
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
}

void render_styled(const Json::Value& value, std::string& out) {
    out.clear();
    if (!CStyledWriter::takes(value)) {
        Json::StreamWriterBuilder builder;
        out = Json::writeString(builder, value);
        return;
    }
    CStyledWriter(out).write(value);
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
