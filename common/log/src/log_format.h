// log_format: vsnprintf for the conversions log lines use (%s, %.*s, %d, %i, %u, %x, %c, %% with
// the length modifiers hh, h, l, ll, z), several times faster than the C library's, which every
// log line and so every request pays for. Anything else (flags, widths, other conversions, a
// null string) is handed to vsnprintf, so the text is always the C library's.
#ifndef QUOREL_LOG_LOG_FORMAT_H
#define QUOREL_LOG_LOG_FORMAT_H

#include <stdarg.h>
#include <stddef.h>

namespace Quorel {
namespace Iot {
namespace Log {

// As vsnprintf: writes at most size - 1 characters and a NUL, returns the full length.
int log_format(char* out, size_t size, const char* format, va_list args);

}  // namespace Log
}  // namespace Iot
}  // namespace Quorel

#endif
