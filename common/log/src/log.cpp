#include "quorel/log/log.h"

#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>

#include "log_crash.h"
#include "log_format.h"
#include "log_writer.h"

using Quorel::Iot::Log::CLogWriter;
using Quorel::Iot::Log::CSinkKind;

namespace {

constexpr size_t kMaxMessage = LOG_MESSAGE_MAX + 1;
// Room before the message for the line's prefix: time, identity, level, file, line, function.
constexpr size_t kMaxPrefix = 512;
constexpr int kDefaultThreshold = 1;
// A syslog record's head: the text's length (4 bytes) and the level (1 byte).
constexpr size_t kSyslogHeader = 5;

int threshold_from_environment(int fallback) {
    const char* text = getenv(LOG_LEVEL_VARIABLE);
    if (text == nullptr || text[0] < '0' || text[0] > '3' || text[1] != '\0') return fallback;
    return text[0] - '0';
}

std::atomic<int> g_threshold{threshold_from_environment(kDefaultThreshold)};
// Identities are kept for the life of the process: syslog keeps the pointer it is given, and a
// line being formatted on another thread may still read the previous one.
std::atomic<const char*> g_identity{"unknown"};
std::mutex g_init_mutex;
std::atomic<log_sink_fn> g_sink{nullptr};
std::atomic<void*> g_sink_context{nullptr};

const char* intern_identity(const char* identity) {
    if (identity == nullptr) identity = "unknown";
    const char* current = g_identity.load(std::memory_order_acquire);
    if (strcmp(current, identity) == 0) return current;
    const char* copy = strdup(identity);
    return copy != nullptr ? copy : current;
}

// "2026-11-23 01:02:03.456" for now. Busy paths log a line per key: the text is rendered once a
// millisecond per thread (the calendar part once a second), which needs no lock.
size_t format_stamp(char* out) {
    thread_local time_t stamp_second = -1;
    thread_local long stamp_ms = -1;
    thread_local char stamp[32];
    thread_local size_t stamp_length = 0;
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    const long ms = static_cast<long>(tv.tv_usec / 1000);
    if (tv.tv_sec != stamp_second) {
        struct tm tm_now;
        localtime_r(&tv.tv_sec, &tm_now);
        stamp_length = strftime(stamp, sizeof(stamp) - 4, "%Y-%m-%d %H:%M:%S", &tm_now);
        stamp_second = tv.tv_sec;
        stamp_ms = -1;
    }
    if (ms != stamp_ms) {
        stamp[stamp_length] = '.';
        stamp[stamp_length + 1] = static_cast<char>('0' + ms / 100);
        stamp[stamp_length + 2] = static_cast<char>('0' + ms / 10 % 10);
        stamp[stamp_length + 3] = static_cast<char>('0' + ms % 10);
        stamp_ms = ms;
    }
    memcpy(out, stamp, stamp_length + 4);
    return stamp_length + 4;
}

// What follows the time in a line: the same for every line of one call site, so a thread keeps
// the last one it rendered and a loop logging a line per key renders it once.
struct CSiteText {
    const char* file = nullptr;
    const char* function = nullptr;
    const char* identity = nullptr;
    int line = -1;
    int level = -1;
    CSinkKind kind = CSinkKind::kFd;
    size_t length = 0;
    char text[kMaxPrefix];
};

const CSiteText& site_text(CSinkKind kind, int level, const char* file, int line, const char* function) {
    thread_local CSiteText site;
    const char* identity = g_identity.load(std::memory_order_acquire);
    if (site.file == file && site.function == function && site.identity == identity && site.line == line &&
        site.level == level && site.kind == kind) {
        return site;
    }
    const int n =
        kind == CSinkKind::kFd
            ? snprintf(site.text, sizeof(site.text), " %s L%d %s:%d %s: ", identity, level, file, line, function)
            : snprintf(site.text, sizeof(site.text), "L%d %s:%d %s: ", level, file, line, function);
    site.length = n < 0 ? 0 : std::min(static_cast<size_t>(n), sizeof(site.text) - 1);
    site.file = file;
    site.function = function;
    site.identity = identity;
    site.line = line;
    site.level = level;
    site.kind = kind;
    return site;
}

// Writes the record's head into prefix and returns its length. Standard error gets the whole line;
// syslog supplies time and identity itself and gets (length, level) before the text instead.
size_t format_prefix(CSinkKind kind, char* prefix, int level, const char* file, int line, const char* function) {
    // Call sites pass literals, but a null must not reach the cache's comparison or snprintf.
    if (file == nullptr) file = "";
    if (function == nullptr) function = "";
    const CSiteText& site = site_text(kind, level, file, line, function);
    size_t length = kind == CSinkKind::kFd ? format_stamp(prefix) : kSyslogHeader;
    const size_t room = kMaxPrefix - 1 - length;
    const size_t taken = std::min(site.length, room);
    memcpy(prefix + length, site.text, taken);
    return length + taken;
}

}  // namespace

extern "C" void log_init(const char* identity, int output, int facility, int verbosity) {
    std::lock_guard<std::mutex> lock(g_init_mutex);
    const char* interned = intern_identity(identity);
    g_identity.store(interned, std::memory_order_release);
    const int clamped = verbosity < 0 ? 0 : (verbosity > 3 ? 3 : verbosity);
    g_threshold.store(threshold_from_environment(3 - clamped), std::memory_order_relaxed);
    if (output == LOG_OUTPUT_SYSLOG) {
        static const int kFacilities[] = {LOG_DAEMON, LOG_LOCAL0, LOG_LOCAL1, LOG_LOCAL2, LOG_LOCAL3,
                                          LOG_LOCAL4, LOG_LOCAL5, LOG_LOCAL6, LOG_LOCAL7};
        const bool known = facility >= 0 && facility <= 8;
        openlog(interned, LOG_PID | LOG_NDELAY, kFacilities[known ? facility : 0]);
        CLogWriter::instance().set_sink(CSinkKind::kSyslog, STDERR_FILENO);
    } else {
        CLogWriter::instance().set_sink(CSinkKind::kFd, STDERR_FILENO);
    }
    Quorel::Iot::Log::install_crash_flush();
}

extern "C" void log_set_sink(log_sink_fn sink, void* context) {
    g_sink_context.store(context, std::memory_order_relaxed);
    g_sink.store(sink, std::memory_order_release);
}

extern "C" void log_flush(void) { CLogWriter::instance().flush(); }

extern "C" void log_print(int level, const char*, const char*, const char* file, const char* function, int line,
                          const char* format, ...) {
    log_sink_fn sink = g_sink.load(std::memory_order_acquire);
    const bool written = level >= g_threshold.load(std::memory_order_relaxed);
    if (!written && sink == nullptr) return;

    // The message is formatted once, in place after the room for the prefix; the prefix is put
    // right before it, so the record is one contiguous run of bytes.
    char record[kMaxPrefix + kMaxMessage + 1];
    char* message = record + kMaxPrefix;
    va_list args;
    va_start(args, format);
    const int n = Quorel::Iot::Log::log_format(message, kMaxMessage, format, args);
    va_end(args);
    if (n < 0) message[0] = '\0';
    const size_t message_length = n < 0 ? 0 : (static_cast<size_t>(n) < kMaxMessage ? n : kMaxMessage - 1);

    if (sink != nullptr) sink(level, file, function, line, message, g_sink_context.load(std::memory_order_relaxed));
    if (!written) return;

    CLogWriter& writer = CLogWriter::instance();
    for (;;) {
        const CSinkKind kind = writer.kind();
        char prefix[kMaxPrefix];
        const size_t prefix_length = format_prefix(kind, prefix, level, file, line, function);
        char* begin = message - prefix_length;
        memcpy(begin, prefix, prefix_length);
        size_t size = prefix_length + message_length;
        if (kind == CSinkKind::kFd) {
            message[message_length] = '\n';
            ++size;
        } else {
            const uint32_t text_length = static_cast<uint32_t>(size - kSyslogHeader);
            memcpy(begin, &text_length, sizeof(text_length));
            begin[4] = static_cast<char>(level < 0 ? 0 : (level > 3 ? 3 : level));
        }
        // Failures are what is read after a crash or a hang: they go out before the caller goes on.
        if (writer.append(kind, begin, size, level >= 3)) return;
    }
}
