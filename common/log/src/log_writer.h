// CLogWriter: takes whole formatted lines from any thread and writes them from a thread of its
// own, many lines per write, so that a busy request path pays for a memcpy, not a system call.
//
// Guarantees: a line is appended whole under one lock, so lines of different threads never
// interleave and the lines of one thread keep their order; append() waits while the buffer is
// full instead of dropping a line; flush() returns once everything appended before it has reached
// the destination; whatever is buffered is written when the process exits normally
// (finish(), run by atexit) and, best effort, when it dies of a fatal signal (crash_flush()).
#ifndef QUOREL_LOG_LOG_WRITER_H
#define QUOREL_LOG_LOG_WRITER_H

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

namespace Quorel {
namespace Iot {
namespace Log {

// How a buffered record is written. A change of kind flushes what was buffered in the old one.
enum class CSinkKind {
    kFd,      // records are plain text lines, written to m_fd in chunks
    kSyslog,  // records are (length, level, text), each handed to syslog(3) on its own
};

class CLogWriter {
public:
    // Each buffer holds this much; a burst larger than one buffer makes callers wait for the writer.
    static constexpr size_t kCapacity = 128 * 1024;
    // The writer is woken early once this much is waiting; otherwise it looks every kIntervalMs.
    static constexpr size_t kWakeBytes = 32 * 1024;
    static constexpr int kIntervalMs = 50;

    // The process-wide writer. Never destroyed: threads may log while static objects go away.
    static CLogWriter& instance();

    // Appends one record formatted for kind. False, with nothing appended, when the writer's
    // kind is another one by now: the caller formats the record again for kind().
    bool append(CSinkKind kind, const char* data, size_t size, bool urgent);
    void flush();
    CSinkKind kind() const { return m_kind.load(std::memory_order_acquire); }
    // Flushes, then writes later records as kind, to fd (for kFd).
    void set_sink(CSinkKind kind, int fd);

    // Stops the writer thread after it wrote everything; later records are written by their
    // callers. Idempotent.
    void finish();
    // Writes whatever is buffered to the descriptor (standard error for syslog records) without
    // taking a lock: for a fatal signal's handler only, where the state may be torn.
    void crash_flush();

private:
    CLogWriter() = default;
    void run();
    void start_locked();
    // Swaps the filled buffer out and writes it; the caller holds m_write_mutex, not m_mutex.
    void drain();
    void write_records(const char* data, size_t size);
    static void after_fork_in_child();

    // Lock order: m_write_mutex, then m_mutex. m_write_mutex is held from taking a buffer's
    // records until they are written, which keeps chunks in order whoever writes them.
    std::mutex m_write_mutex;
    std::mutex m_mutex;
    std::condition_variable m_wake_writer;
    std::condition_variable m_space;
    char* m_front = nullptr;             // filled by callers; guarded by m_mutex
    char* m_back = nullptr;              // being written; guarded by m_write_mutex
    std::atomic<size_t> m_size{0};       // bytes in m_front; written under m_mutex
    std::atomic<size_t> m_back_size{0};  // bytes in m_back not yet written (for crash_flush)
    std::atomic<const char*> m_back_next{nullptr};
    std::atomic<bool> m_draining{false};  // a buffer is being taken and written
    std::atomic<bool> m_crashed{false};   // a fatal signal's handler owns the buffers
    std::atomic<CSinkKind> m_kind{CSinkKind::kFd};
    std::atomic<int> m_fd{2};
    std::thread m_thread;
    bool m_running = false;     // the writer thread is there to write; guarded by m_mutex
    bool m_stopping = false;    // guarded by m_mutex
    bool m_idle = false;        // the writer sleeps until a line comes; guarded by m_mutex
    bool m_finished = false;    // no writer thread runs again (exit began, or none could start); guarded by m_mutex
    bool m_registered = false;  // atexit and the fork handler are installed; guarded by m_mutex
};

}  // namespace Log
}  // namespace Iot
}  // namespace Quorel

#endif
