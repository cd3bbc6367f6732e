#include "bench_fixture.h"

#include <cstdio>
#include <fstream>

#include "quorel/configmanager/base64.h"

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

// The store's own codec: the file must hold exactly what the service would have written.
std::string encoded(const std::string& text) {
    std::string out;
    Configmanager::base64_encode(text, out);
    return out;
}

}  // namespace

std::string key_name(size_t index) { return "bench.key." + six_digits(index); }

std::string key_value(size_t index) { return "value-" + six_digits(index); }

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
        text += (i == 0 ? "\n\t\t\"" : ",\n\t\t\"") + key_name(i) + "\" : \"" + encoded(envelope) + '"';
    }
    text += "\n\t},\n\t\"metadata\" : {}\n}";
    return write_text_file(path, text, error);
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
