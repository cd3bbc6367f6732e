#include "bench_fixture.h"

#include <cstdio>
#include <fstream>

namespace Quorel {
namespace Iot {
namespace Bench {

const char kOnePercentPattern[] = "00$";
const char kAllPattern[] = ".";

namespace {

std::string six_digits(size_t index) {
    char buffer[32];
    snprintf(buffer, sizeof(buffer), "%06zu", index);
    return buffer;
}

}  // namespace

std::string key_name(size_t index) { return "bench.key." + six_digits(index); }

std::string key_value(size_t index) { return "value-" + six_digits(index); }

std::string base64_encode(const std::string& text) {
    static const char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    out.reserve((text.size() + 2) / 3 * 4);
    size_t i = 0;
    for (; i + 2 < text.size(); i += 3) {
        const unsigned n = static_cast<unsigned char>(text[i]) << 16 | static_cast<unsigned char>(text[i + 1]) << 8 |
                           static_cast<unsigned char>(text[i + 2]);
        out += {kAlphabet[n >> 18], kAlphabet[(n >> 12) & 63], kAlphabet[(n >> 6) & 63], kAlphabet[n & 63]};
    }
    if (i + 1 == text.size()) {
        const unsigned n = static_cast<unsigned char>(text[i]) << 16;
        out += {kAlphabet[n >> 18], kAlphabet[(n >> 12) & 63], '=', '='};
    } else if (i + 2 == text.size()) {
        const unsigned n = static_cast<unsigned char>(text[i]) << 16 | static_cast<unsigned char>(text[i + 1]) << 8;
        out += {kAlphabet[n >> 18], kAlphabet[(n >> 12) & 63], kAlphabet[(n >> 6) & 63], '='};
    }
    return out;
}

bool write_text_file(const std::string& path, const std::string& text, std::string& error) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    if (!out) {
        error = "cannot write " + path;
        return false;
    }
    return true;
}

bool write_default_file(const std::string& path, size_t count, std::string& error) {
    std::string text = "{\n\t\"config\" : \n\t{";
    for (size_t i = 0; i < count; ++i) {
        const std::string envelope = "{\"data\":\"" + key_value(i) + "\",\"ts\":1700000000000}\n";
        text += (i == 0 ? "\n\t\t\"" : ",\n\t\t\"") + key_name(i) + "\" : \"" + base64_encode(envelope) + '"';
    }
    text += "\n\t},\n\t\"metadata\" : {}\n}";
    return write_text_file(path, text, error);
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
