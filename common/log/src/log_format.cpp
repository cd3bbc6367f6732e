#include "log_format.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/types.h>

namespace Quorel {
namespace Iot {
namespace Log {

namespace {

class COutput {
public:
    COutput(char* out, size_t size) : m_out(out), m_size(size) {}
    void put(char c) {
        if (m_length + 1 < m_size) m_out[m_length] = c;
        ++m_length;
    }
    void put(const char* text, size_t length) {
        if (m_length + 1 < m_size) {
            const size_t room = m_size - 1 - m_length;
            memcpy(m_out + m_length, text, length < room ? length : room);
        }
        m_length += length;
    }
    int finish() {
        if (m_size > 0) m_out[m_length < m_size ? m_length : m_size - 1] = '\0';
        return static_cast<int>(m_length);
    }

private:
    char* m_out;
    size_t m_size;
    size_t m_length = 0;
};

void put_unsigned(COutput& out, unsigned long long value, unsigned base) {
    char digits[24];
    size_t n = 0;
    do {
        digits[n++] = "0123456789abcdef"[value % base];
        value /= base;
    } while (value != 0);
    while (n > 0) out.put(digits[--n]);
}

void put_signed(COutput& out, long long value) {
    if (value < 0) {
        out.put('-');
        // Negated in unsigned arithmetic, so the most negative value needs no special case.
        put_unsigned(out, 0ull - static_cast<unsigned long long>(value), 10);
    } else {
        put_unsigned(out, static_cast<unsigned long long>(value), 10);
    }
}

enum class CLength { kNone, kChar, kShort, kLong, kLongLong, kSize };

// False, having written a partial text, for anything it does not know: the caller starts over.
bool fast_format(COutput& out, const char* format, va_list args) {
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') {
            const char* next = strchr(p, '%');
            const size_t run = next == nullptr ? strlen(p) : static_cast<size_t>(next - p);
            out.put(p, run);
            p += run - 1;
            continue;
        }
        ++p;
        int precision = -1;
        if (p[0] == '.' && p[1] == '*') {
            precision = va_arg(args, int);
            if (precision < 0) return false;
            p += 2;
        }
        CLength length = CLength::kNone;
        if (p[0] == 'h' && p[1] == 'h') {
            length = CLength::kChar;
            p += 2;
        } else if (p[0] == 'h') {
            length = CLength::kShort;
            ++p;
        } else if (p[0] == 'l' && p[1] == 'l') {
            length = CLength::kLongLong;
            p += 2;
        } else if (p[0] == 'l') {
            length = CLength::kLong;
            ++p;
        } else if (p[0] == 'z') {
            length = CLength::kSize;
            ++p;
        }
        if (precision >= 0 && *p != 's') return false;
        switch (*p) {
            case '%':
                if (length != CLength::kNone) return false;
                out.put('%');
                break;
            case 'c':
                if (length != CLength::kNone) return false;
                out.put(static_cast<char>(va_arg(args, int)));
                break;
            case 's': {
                if (length != CLength::kNone) return false;
                const char* text = va_arg(args, const char*);
                if (text == nullptr) return false;
                const size_t size = precision >= 0 ? strnlen(text, static_cast<size_t>(precision)) : strlen(text);
                out.put(text, size);
                break;
            }
            case 'd':
            case 'i':
                switch (length) {
                    case CLength::kChar:
                        put_signed(out, static_cast<signed char>(va_arg(args, int)));
                        break;
                    case CLength::kShort:
                        put_signed(out, static_cast<short>(va_arg(args, int)));
                        break;
                    case CLength::kLong:
                        put_signed(out, va_arg(args, long));
                        break;
                    case CLength::kLongLong:
                        put_signed(out, va_arg(args, long long));
                        break;
                    case CLength::kSize:
                        put_signed(out, va_arg(args, ssize_t));
                        break;
                    default:
                        put_signed(out, va_arg(args, int));
                }
                break;
            case 'u':
            case 'x': {
                const unsigned base = *p == 'u' ? 10 : 16;
                switch (length) {
                    case CLength::kChar:
                        put_unsigned(out, static_cast<unsigned char>(va_arg(args, unsigned)), base);
                        break;
                    case CLength::kShort:
                        put_unsigned(out, static_cast<unsigned short>(va_arg(args, unsigned)), base);
                        break;
                    case CLength::kLong:
                        put_unsigned(out, va_arg(args, unsigned long), base);
                        break;
                    case CLength::kLongLong:
                        put_unsigned(out, va_arg(args, unsigned long long), base);
                        break;
                    case CLength::kSize:
                        put_unsigned(out, va_arg(args, size_t), base);
                        break;
                    default:
                        put_unsigned(out, va_arg(args, unsigned), base);
                }
                break;
            }
            default:
                return false;
        }
    }
    return true;
}

}  // namespace

int log_format(char* out, size_t size, const char* format, va_list args) {
    va_list attempt;
    va_copy(attempt, args);
    COutput output(out, size);
    const bool done = fast_format(output, format, attempt);
    va_end(attempt);
    if (!done) return vsnprintf(out, size, format, args);
    return output.finish();
}

}  // namespace Log
}  // namespace Iot
}  // namespace Quorel
