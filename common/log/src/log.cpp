#include "quorel/log/log.h"

#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

namespace {

pthread_mutex_t g_log_mutex = PTHREAD_MUTEX_INITIALIZER;
std::string g_identity = "unknown";  // guarded by g_log_mutex
time_t g_stamp_second = -1;          // guarded by g_log_mutex
char g_stamp[32];                    // guarded by g_log_mutex: g_stamp_second as local time
std::atomic<log_sink_fn> g_sink{nullptr};
std::atomic<void*> g_sink_context{nullptr};

bool detail_enabled() {
    // Read once: the environment does not change under a running service.
    static const bool enabled = [] {
        const char* v = getenv("CONFIG_MANAGER_LOG_DETAIL");
        return v != nullptr && v[0] != '\0' && strcmp(v, "0") != 0;
    }();
    return enabled;
}

}  // namespace

extern "C" void log_init(const char* identity, int, int, int) {
    pthread_mutex_lock(&g_log_mutex);
    g_identity = identity != nullptr ? identity : "unknown";
    pthread_mutex_unlock(&g_log_mutex);
}

extern "C" void log_set_sink(log_sink_fn sink, void* context) {
    g_sink_context.store(context, std::memory_order_relaxed);
    g_sink.store(sink, std::memory_order_release);
}

extern "C" void log_print(int level, const char*, const char*, const char* file, const char* function, int line,
                          const char* format, ...) {
    log_sink_fn sink = g_sink.load(std::memory_order_acquire);
    const bool to_stderr = level > 0 || detail_enabled();
    if (!to_stderr && sink == nullptr) return;

    char message[2048];
    va_list args;
    va_start(args, format);
    int n = vsnprintf(message, sizeof(message), format, args);
    va_end(args);
    if (n < 0) message[0] = '\0';

    if (sink != nullptr) sink(level, file, function, line, message, g_sink_context.load(std::memory_order_relaxed));
    if (!to_stderr) return;

    struct timeval tv;
    gettimeofday(&tv, nullptr);

    char out[2600];
    pthread_mutex_lock(&g_log_mutex);
    // Busy paths log a line per key; rendering the calendar time once a second keeps that cheap.
    if (tv.tv_sec != g_stamp_second) {
        struct tm tm_now;
        localtime_r(&tv.tv_sec, &tm_now);
        strftime(g_stamp, sizeof(g_stamp), "%Y-%m-%d %H:%M:%S", &tm_now);
        g_stamp_second = tv.tv_sec;
    }
    int len = snprintf(out, sizeof(out), "%s.%03ld %s L%d %s:%d %s: %s\n", g_stamp,
                       static_cast<long>(tv.tv_usec / 1000), g_identity.c_str(), level, file, line, function, message);
    if (len > 0) {
        size_t total = static_cast<size_t>(len) < sizeof(out) ? static_cast<size_t>(len) : sizeof(out) - 1;
        if (total == sizeof(out) - 1) out[total - 1] = '\n';
        ssize_t ignored = write(STDERR_FILENO, out, total);
        (void)ignored;
    }
    pthread_mutex_unlock(&g_log_mutex);
}
