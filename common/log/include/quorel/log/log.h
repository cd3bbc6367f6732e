// The gateway logger: one line per call, written off the caller's path.
//
// log_print formats the line on the calling thread and hands it, whole, to a writer thread that
// writes many lines at a time. Lines of concurrent callers never interleave and each thread's
// lines keep their order. Level 3 (failure) lines are written before log_print returns, together
// with everything logged before them. A caller waits while the buffer is full; no line is
// dropped. What is buffered is written at normal exit and, once log_init has run, before the
// process dies of SIGSEGV, SIGBUS, SIGILL, SIGFPE or SIGABRT.
//
// Levels: 0 detail, 1 start/stop and per-request traces, 2 warnings, 3 failures.
#ifndef QUOREL_LOG_LOG_H
#define QUOREL_LOG_LOG_H

// log_init's output.
#define LOG_OUTPUT_STDERR 1  // standard error, one line each (journald collects it under systemd)
#define LOG_OUTPUT_SYSLOG 2  // syslog(3) with the level as priority (detail debug ... failure err)

// Overrides the threshold log_init derives from its verbosity: "0" writes every level, "1"
// levels 1 to 3 (the default), "2" levels 2 and 3, "3" failures only. For development.
#define LOG_LEVEL_VARIABLE "CONFIG_MANAGER_LOG_LEVEL"

// The longest message a line carries; a longer one is cut there. Logging a text of unknown size
// with "%.*s" and this precision keeps the formatting from reading all of it.
#define LOG_MESSAGE_MAX 2047

#ifdef __cplusplus
extern "C" {
#endif

// identity names the process in every line. output is one of LOG_OUTPUT_*; any other value means
// standard error. facility selects the syslog facility: 0 daemon, 1 to 8 local0 to local7 (others
// daemon); it matters for LOG_OUTPUT_SYSLOG only. verbosity sets the lowest level written, as
// 3 - verbosity: 0 failures only, 1 warnings and failures, 2 everything but detail (the service's
// own call, log_init(name, 1, 0, 2)), 3 everything. Before the first call, lines go to standard
// error at that same default. May be called again at any time, from any thread.
void log_init(const char* identity, int output, int facility, int verbosity);

void log_print(int level, const char* color, const char* tag, const char* file, const char* function, int line,
               const char* format, ...) __attribute__((format(printf, 7, 8)));

// Test hook: every call of log_print (whatever its level) is also handed, formatted, to sink.
// Pass null to remove it. The sink runs on the logging thread with no logger lock held.
typedef void (*log_sink_fn)(int level, const char* file, const char* function, int line, const char* message,
                            void* context);
void log_set_sink(log_sink_fn sink, void* context);

// Returns once every line logged before the call has been written.
void log_flush(void);

#ifdef __cplusplus
}
#endif

// Each source file that logs defines kLogFile, the path the gateway's log tools know it by.
#define QLOG(level, ...) log_print((level), "color", "tag", kLogFile, __func__, __LINE__, __VA_ARGS__)

#endif
