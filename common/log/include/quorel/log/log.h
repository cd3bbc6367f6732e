// The gateway logger: one line per call on standard error.
//
// Thread-safe: a line is written with a single write(2) under a process-wide lock, so lines of
// concurrent callers never interleave. Level 0 ("detail") lines are hidden unless the environment
// variable CONFIG_MANAGER_LOG_DETAIL is set to a non-empty value other than "0".
#ifndef QUOREL_LOG_LOG_H
#define QUOREL_LOG_LOG_H

#ifdef __cplusplus
extern "C" {
#endif

// identity names the process in every line; the three integers are the gateway logger's
// settings (output selection, remote flag, default level) and are kept for the caller's
// benefit only: this implementation writes to standard error whatever they are.
void log_init(const char* identity, int output, int remote, int level);

void log_print(int level, const char* color, const char* tag, const char* file, const char* function, int line,
               const char* format, ...) __attribute__((format(printf, 7, 8)));

// Test hook: every call of log_print (whatever its level) is also handed, formatted, to sink.
// Pass null to remove it. The sink runs on the logging thread with no logger lock held.
typedef void (*log_sink_fn)(int level, const char* file, const char* function, int line, const char* message,
                            void* context);
void log_set_sink(log_sink_fn sink, void* context);

#ifdef __cplusplus
}
#endif

// Each source file that logs defines kLogFile, the path the gateway's log tools know it by.
#define QLOG(level, ...) log_print((level), "color", "tag", kLogFile, __func__, __LINE__, __VA_ARGS__)

#endif
