#include "text_format.h"

#include <stdio.h>
#include <time.h>

namespace Quorel {
namespace Iot {
namespace Cmctl {

std::string escape_control(const std::string& text) {
    std::string out;
    out.reserve(text.size());
    for (const char ch : text) {
        const unsigned char byte = static_cast<unsigned char>(ch);
        switch (ch) {
            case '\\':
                out += "\\\\";
                continue;
            case '\n':
                out += "\\n";
                continue;
            case '\r':
                out += "\\r";
                continue;
            case '\t':
                out += "\\t";
                continue;
            default:
                break;
        }
        if (byte < 0x20 || byte == 0x7f) {
            char hex[5];
            snprintf(hex, sizeof(hex), "\\x%02x", byte);
            out += hex;
        } else {
            out += ch;
        }
    }
    return out;
}

std::string iso_time(uint64_t ms) {
    const time_t seconds = static_cast<time_t>(ms / 1000);
    struct tm local;
    if (localtime_r(&seconds, &local) == nullptr) return std::to_string(ms);
    char stamp[32];
    strftime(stamp, sizeof(stamp), "%Y-%m-%dT%H:%M:%S", &local);
    const long offset_minutes = local.tm_gmtoff / 60;
    const long magnitude = offset_minutes < 0 ? -offset_minutes : offset_minutes;
    char text[64];
    snprintf(text, sizeof(text), "%s.%03u%c%02ld:%02ld", stamp, static_cast<unsigned>(ms % 1000),
             offset_minutes < 0 ? '-' : '+', magnitude / 60, magnitude % 60);
    return text;
}

uint64_t now_ms() {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1000000;
}

size_t display_width(const std::string& text) {
    size_t width = 0;
    for (const char ch : text) {
        // Continuation bytes of a UTF-8 sequence add nothing.
        if ((static_cast<unsigned char>(ch) & 0xc0) != 0x80) ++width;
    }
    return width;
}

std::string format_table(const std::vector<std::vector<std::string>>& rows) {
    std::vector<size_t> widths;
    for (const auto& row : rows) {
        if (widths.size() < row.size()) widths.resize(row.size(), 0);
        for (size_t column = 0; column < row.size(); ++column) {
            const size_t width = display_width(row[column]);
            if (width > widths[column]) widths[column] = width;
        }
    }
    std::string out;
    for (const auto& row : rows) {
        for (size_t column = 0; column < row.size(); ++column) {
            out += row[column];
            if (column + 1 == row.size()) break;
            out.append(widths[column] - display_width(row[column]) + 2, ' ');
        }
        out += '\n';
    }
    return out;
}

}  // namespace Cmctl
}  // namespace Iot
}  // namespace Quorel
