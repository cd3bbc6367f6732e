#include "log_format.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <string>

using Quorel::Iot::Log::log_format;

namespace {

int format_into(char* out, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const int n = log_format(out, size, format, args);
    va_end(args);
    return n;
}

// log_format must write exactly what snprintf writes, and return what it returns, into a buffer of
// every size from none to more than enough: the log cuts long messages at its buffer.
#define EXPECT_FORMATS_AS_SNPRINTF(...)                                                                 \
    do {                                                                                                \
        char expected[512];                                                                             \
        const int expected_n = snprintf(expected, sizeof(expected), __VA_ARGS__);                       \
        for (size_t size = 0; size <= static_cast<size_t>(expected_n) + 2; ++size) {                    \
            char reference[512];                                                                        \
            char actual[512];                                                                           \
            memset(reference, '#', sizeof(reference));                                                  \
            memset(actual, '#', sizeof(actual));                                                        \
            ASSERT_EQ(format_into(actual, size, __VA_ARGS__), snprintf(reference, size, __VA_ARGS__));  \
            ASSERT_EQ(std::string(actual, size + 1), std::string(reference, size + 1)) << #__VA_ARGS__; \
        }                                                                                               \
    } while (0)

}  // namespace

TEST(ALogFormat, WritesWhatTheCLibraryWritesForTheConversionsLogLinesUse) {
    EXPECT_FORMATS_AS_SNPRINTF("plain text without conversions");
    EXPECT_FORMATS_AS_SNPRINTF("The name %s, key %s is matched", ".", "bench.key.000042");
    EXPECT_FORMATS_AS_SNPRINTF("handle_get, key:%s, code: %d", "gw_a", -1000902);
    EXPECT_FORMATS_AS_SNPRINTF("%d %d %d %i", 0, INT_MIN, INT_MAX, -7);
    EXPECT_FORMATS_AS_SNPRINTF("%u %x %x", UINT_MAX, 0xdeadbeefu, 0u);
    EXPECT_FORMATS_AS_SNPRINTF("%ld %lu %lx", LONG_MIN, ULONG_MAX, 255ul);
    EXPECT_FORMATS_AS_SNPRINTF("%lld %llu %llx", LLONG_MIN, ULLONG_MAX, 0x123456789abcull);
    EXPECT_FORMATS_AS_SNPRINTF("%zu %zd %zx", SIZE_MAX, static_cast<ssize_t>(-5), static_cast<size_t>(4096));
    EXPECT_FORMATS_AS_SNPRINTF("%hhd %hhu %hd %hu", static_cast<signed char>(-56), static_cast<unsigned char>(255),
                               static_cast<short>(-4464), static_cast<unsigned short>(4464));
    EXPECT_FORMATS_AS_SNPRINTF("100%% sure, char %c%c", 'o', 'k');
    EXPECT_FORMATS_AS_SNPRINTF("%.*s|%.*s|%.*s", 3, "abcdef", 0, "abc", 10, "ab");
    EXPECT_FORMATS_AS_SNPRINTF("caf\xc3\xa9 %s", "\xff\xfe");
}

TEST(ALogFormat, LeavesEverythingElseToTheCLibrary) {
    EXPECT_FORMATS_AS_SNPRINTF("%5d|%-4s|%08x|%+d", 42, "ab", 255u, 3);
    EXPECT_FORMATS_AS_SNPRINTF("%p %f %X %o %e", static_cast<void*>(nullptr), 1.5, 255u, 8u, 2.5);
    EXPECT_FORMATS_AS_SNPRINTF("%.3s %.*d", "abcdef", 4, 7);
    // A null string and a trailing "%" are refused by the compiler's format check, but may still
    // come from a caller's variable format.
    const char* null_text = nullptr;
    const char* formats[] = {"%s and %.*s", "a trailing %"};
    for (const char* format : formats) {
        char expected[128];
        char actual[128];
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        const int expected_n = snprintf(expected, sizeof(expected), format, null_text, -1, "negative precision");
        EXPECT_EQ(format_into(actual, sizeof(actual), format, null_text, -1, "negative precision"), expected_n);
#pragma GCC diagnostic pop
        EXPECT_STREQ(actual, expected) << format;
    }
}
