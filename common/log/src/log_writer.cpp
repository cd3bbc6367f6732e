#include "log_writer.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <new>
#include <system_error>

namespace Quorel {
namespace Iot {
namespace Log {

namespace {

// How long a fatal signal's handler waits for a chunk the writer is writing.
constexpr int kCrashPatienceMs = 200;

// A syslog record: its text length and level, then the text (no newline).
constexpr size_t kRecordHeader = sizeof(uint32_t) + 1;

// Writes all of size bytes unless the descriptor fails; async-signal-safe. progress, when given,
// follows the bytes still to write, so that a crash in the middle writes only the rest.
void write_all(int fd, const char* data, size_t size, std::atomic<const char*>* next = nullptr,
               std::atomic<size_t>* left = nullptr) {
    while (size > 0) {
        const ssize_t n = write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            // A full non-blocking descriptor or a closed one: nothing better to do with the log.
            return;
        }
        data += n;
        size -= static_cast<size_t>(n);
        if (next != nullptr) {
            next->store(data, std::memory_order_relaxed);
            left->store(size, std::memory_order_relaxed);
        }
    }
}

int syslog_priority(uint8_t level) {
    switch (level) {
        case 0:
            return LOG_DEBUG;
        case 1:
            return LOG_INFO;
        case 2:
            return LOG_WARNING;
        default:
            return LOG_ERR;
    }
}

// Calls visit(level, text, length) for each whole syslog record of data.
template <typename Visit>
void for_each_record(const char* data, size_t size, Visit visit) {
    while (size >= kRecordHeader) {
        uint32_t length = 0;
        memcpy(&length, data, sizeof(length));
        const uint8_t level = static_cast<uint8_t>(data[sizeof(length)]);
        if (length > size - kRecordHeader) return;
        visit(level, data + kRecordHeader, length);
        data += kRecordHeader + length;
        size -= kRecordHeader + length;
    }
}

void atexit_finish() { CLogWriter::instance().finish(); }

}  // namespace

CLogWriter& CLogWriter::instance() {
    static CLogWriter* writer = new CLogWriter();
    return *writer;
}

void CLogWriter::start_locked() {
    if (m_front == nullptr) {
        m_front = static_cast<char*>(malloc(kCapacity));
        m_back = static_cast<char*>(malloc(kCapacity));
        if (m_front == nullptr || m_back == nullptr) {
            free(m_front);
            free(m_back);
            m_front = m_back = nullptr;
            return;
        }
    }
    if (!m_registered) {
        m_registered = true;
        atexit(atexit_finish);
        pthread_atfork(nullptr, nullptr, after_fork_in_child);
    }
    if (m_running || m_finished) return;
    // The writer takes no signal: they belong to the threads that wait for them.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
        m_thread = std::thread([this] { run(); });
        m_running = true;
        m_stopping = false;
    } catch (const std::system_error&) {
        // No thread (the process is out of them): callers write their own lines from now on, as
        // after exit, rather than try again for every line.
        m_finished = true;
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

bool CLogWriter::append(CSinkKind kind, const char* data, size_t size, bool urgent) {
    bool direct = false;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        for (;;) {
            if (kind != m_kind.load(std::memory_order_relaxed)) return false;
            if (!m_running && !m_finished) start_locked();
            if (m_front == nullptr) {
                // No buffer (out of memory, or the process is exiting and never logged before):
                // the line goes out on this thread, unbuffered.
                lock.unlock();
                std::lock_guard<std::mutex> write_lock(m_write_mutex);
                write_records(data, size);
                return true;
            }
            if (m_size.load(std::memory_order_relaxed) + size <= kCapacity) break;
            if (!m_running) {
                lock.unlock();
                flush();
                lock.lock();
                continue;
            }
            // Full: wait for the writer rather than lose the line.
            m_wake_writer.notify_one();
            m_space.wait(lock);
        }
        const size_t before = m_size.load(std::memory_order_relaxed);
        memcpy(m_front + before, data, size);
        m_size.store(before + size, std::memory_order_release);
        // The writer is woken only from its idle sleep, or when the buffer crosses the mark: a
        // busy writer finds the lines at the end of its gathering pause without being told.
        if ((m_idle && before == 0) || (before < kWakeBytes && before + size >= kWakeBytes)) {
            m_wake_writer.notify_one();
        }
        direct = !m_running;
    }
    if (urgent || direct) flush();
    return true;
}

void CLogWriter::flush() {
    std::lock_guard<std::mutex> write_lock(m_write_mutex);
    drain();
}

void CLogWriter::drain() {
    // Paired with crash_flush(): either the crash is seen here and the buffer left to the
    // handler, or the handler sees this drain and waits for it to end, so no line is written twice.
    m_draining.store(true);
    if (m_crashed.load()) {
        m_draining.store(false);
        return;
    }
    size_t size = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        size = m_size.load(std::memory_order_relaxed);
        if (size == 0) {
            m_draining.store(false);
            return;
        }
        std::swap(m_front, m_back);
        m_back_next.store(m_back, std::memory_order_relaxed);
        m_back_size.store(size, std::memory_order_release);
        m_size.store(0, std::memory_order_release);
        m_space.notify_all();
    }
    write_records(m_back, size);
    m_back_size.store(0, std::memory_order_release);
    m_draining.store(false);
}

void CLogWriter::write_records(const char* data, size_t size) {
    if (m_kind.load(std::memory_order_relaxed) == CSinkKind::kFd) {
        write_all(m_fd.load(std::memory_order_relaxed), data, size, &m_back_next, &m_back_size);
        return;
    }
    for_each_record(data, size, [](uint8_t level, const char* text, uint32_t length) {
        syslog(syslog_priority(level), "%.*s", static_cast<int>(length), text);
    });
}

void CLogWriter::set_sink(CSinkKind kind, int fd) {
    std::lock_guard<std::mutex> write_lock(m_write_mutex);
    drain();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_fd.store(fd, std::memory_order_relaxed);
    m_kind.store(kind, std::memory_order_release);
}

void CLogWriter::run() {
    pthread_setname_np(pthread_self(), "log_writer");
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        // Idle, the writer sleeps until a line comes; then it lets lines gather for a while, so
        // that a busy service writes a few large chunks a second rather than a line at a time.
        m_idle = true;
        m_wake_writer.wait(lock, [this] { return m_stopping || m_size.load(std::memory_order_relaxed) > 0; });
        m_idle = false;
        m_wake_writer.wait_for(lock, std::chrono::milliseconds(kIntervalMs),
                               [this] { return m_stopping || m_size.load(std::memory_order_relaxed) >= kWakeBytes; });
        const bool stopping = m_stopping;
        lock.unlock();
        flush();
        lock.lock();
        if (stopping) break;
    }
    m_running = false;
    // Callers waiting for room write their lines themselves from now on.
    m_space.notify_all();
}

void CLogWriter::finish() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_finished = true;
        m_stopping = true;
        m_wake_writer.notify_one();
    }
    if (m_thread.joinable() && m_thread.get_id() != std::this_thread::get_id()) m_thread.join();
    flush();
}

void CLogWriter::after_fork_in_child() {
    // Only the forking thread lives on in the child: the writer is gone, and a lock another
    // thread held at the fork would never be released. The parent's buffered lines are its own.
    CLogWriter& self = instance();
    new (&self.m_write_mutex) std::mutex();
    new (&self.m_mutex) std::mutex();
    new (&self.m_wake_writer) std::condition_variable();
    new (&self.m_space) std::condition_variable();
    new (&self.m_thread) std::thread();
    self.m_running = false;
    self.m_stopping = false;
    self.m_size.store(0, std::memory_order_relaxed);
    self.m_back_size.store(0, std::memory_order_relaxed);
}

void CLogWriter::crash_flush() {
    const bool fd_kind = m_kind.load(std::memory_order_relaxed) == CSinkKind::kFd;
    const int fd = fd_kind ? m_fd.load(std::memory_order_relaxed) : STDERR_FILENO;
    auto emit = [fd, fd_kind](const char* data, size_t size) {
        if (data == nullptr || size == 0) return;
        if (fd_kind) {
            write_all(fd, data, size);
            return;
        }
        // syslog(3) takes locks a crashed thread may hold: standard error is safer now.
        for_each_record(data, size, [fd](uint8_t, const char* text, uint32_t length) {
            write_all(fd, text, length);
            write_all(fd, "\n", 1);
        });
    };
    // Other threads run on while this one handles its signal: a chunk being written is left to
    // its writer for a moment. One that does not end (its output is blocked) is written from where
    // it got to; a syslog chunk is left to syslog, whose progress is not followed.
    m_crashed.store(true);
    for (int i = 0; i < kCrashPatienceMs && m_draining.load(); ++i) {
        const struct timespec millisecond = {0, 1000000};
        nanosleep(&millisecond, nullptr);
    }
    if (m_draining.load() && fd_kind) {
        emit(m_back_next.load(std::memory_order_relaxed), m_back_size.load(std::memory_order_acquire));
    }
    emit(m_front, m_size.load(std::memory_order_acquire));
}

}  // namespace Log
}  // namespace Iot
}  // namespace Quorel
