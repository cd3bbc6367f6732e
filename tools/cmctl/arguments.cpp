#include "arguments.h"

#include <dbus/dbus.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <climits>

#include "failure.h"

namespace Quorel {
namespace Iot {
namespace Cmctl {

bool is_bus_text(const std::string& text) {
    return text.find('\0') == std::string::npos && dbus_validate_utf8(text.c_str(), nullptr);
}

int check_bus_text(const std::string& command, const char* what, const std::string& text) {
    if (is_bus_text(text)) return kExitOk;
    return usage_error(command, std::string(what) + " is not UTF-8 text, or holds a NUL byte");
}

bool parse_uint64(const std::string& text, uint64_t& value) {
    if (text.empty() || text.size() > 20) return false;
    uint64_t result = 0;
    for (const char ch : text) {
        if (ch < '0' || ch > '9') return false;
        const uint64_t digit = static_cast<uint64_t>(ch - '0');
        if (result > (UINT64_MAX - digit) / 10) return false;
        result = result * 10 + digit;
    }
    value = result;
    return true;
}

bool parse_int32(const std::string& text, int32_t& value) {
    const bool negative = !text.empty() && text[0] == '-';
    uint64_t magnitude = 0;
    if (!parse_uint64(negative ? text.substr(1) : text, magnitude)) return false;
    const uint64_t limit = negative ? static_cast<uint64_t>(INT32_MAX) + 1 : INT32_MAX;
    if (magnitude > limit) return false;
    value = negative ? static_cast<int32_t>(-static_cast<int64_t>(magnitude)) : static_cast<int32_t>(magnitude);
    return true;
}

bool read_input(const std::string& path, std::string& content, std::string& error) {
    FILE* file = path == "-" ? stdin : fopen(path.c_str(), "rb");
    if (file == nullptr) {
        error = strerror(errno);
        return false;
    }
    char buffer[65536];
    size_t n = 0;
    while ((n = fread(buffer, 1, sizeof(buffer), file)) > 0) content.append(buffer, n);
    const bool failed = ferror(file) != 0;
    const int saved = errno;
    if (file != stdin) fclose(file);
    if (failed) error = strerror(saved);
    return !failed;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
