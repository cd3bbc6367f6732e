#include "quorel/log/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "quorel/testsupport/child_process.h"
#include "quorel/testsupport/log_capture.h"

using Quorel::Iot::Testing::CLogCapture;
using Quorel::Iot::Testing::run_process;

// A sanitizer's fault handler reports and exits with a status of its own.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
#define CM_UNDER_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define CM_UNDER_SANITIZER 1
#endif
#endif

namespace {

constexpr const char kLogFile[] = "core-services/config-manager/common/log/test/log_test";

std::vector<std::string> split_lines(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Standard error goes to fd while it lives (the logger is flushed on both sides of the swap).
class CRedirectedStderr {
public:
    explicit CRedirectedStderr(int fd) {
        log_flush();
        m_saved = dup(STDERR_FILENO);
        dup2(fd, STDERR_FILENO);
    }
    ~CRedirectedStderr() {
        log_flush();
        dup2(m_saved, STDERR_FILENO);
        close(m_saved);
    }

private:
    int m_saved = -1;
};

// A temporary file that standard error can be pointed at.
class CTempFile {
public:
    CTempFile() { m_fd = mkstemp(m_path); }
    ~CTempFile() {
        close(m_fd);
        unlink(m_path);
    }
    int fd() const { return m_fd; }
    std::string read() const {
        std::string text;
        char buffer[65536];
        ssize_t n;
        for (off_t offset = 0; (n = pread(m_fd, buffer, sizeof(buffer), offset)) > 0; offset += n)
            text.append(buffer, n);
        return text;
    }

private:
    char m_path[32] = "/tmp/cm-log-XXXXXX";
    int m_fd = -1;
};

// "line 0" ... "line count-1", each once, in order, at the end of whole lines of the probe.
void expect_probe_lines(const std::string& err, int count) {
    const std::vector<std::string> lines = split_lines(err);
    int next = 0;
    for (const std::string& line : lines) {
        if (line.find(" log_probe L1 ") == std::string::npos) continue;
        EXPECT_NE(line.find(": line " + std::to_string(next)), std::string::npos) << line;
        if (line.size() < 7 || line.compare(line.size() - std::to_string(next).size() - 5, std::string::npos,
                                            "line " + std::to_string(next)) != 0) {
            ADD_FAILURE() << "expected line " << next << ", got: " << line;
            return;
        }
        ++next;
    }
    EXPECT_EQ(next, count);
}

}  // namespace

TEST(ALogger, HandsTheFormattedMessageWithFileAndFunctionToTheSink) {
    CLogCapture capture;
    QLOG(1, "handle_set, key:%s", "gw_vexa_switch");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].level, 1);
    EXPECT_EQ(lines[0].message, "handle_set, key:gw_vexa_switch");
    EXPECT_EQ(lines[0].file, kLogFile);
    EXPECT_EQ(lines[0].function, "TestBody");
}

TEST(ALogger, CapturesDetailLinesEvenWhenTheyAreHiddenFromStandardError) {
    CLogCapture capture;
    QLOG(0, "arrayObj: %s", "[]");
    EXPECT_EQ(capture.count("arrayObj: []"), 1u);
}

TEST(ALogger, KeepsEachThreadsLinesWholeAndInOrderWhenManyThreadsLogAtOnce) {
    CTempFile file;
    ASSERT_GE(file.fd(), 0);
    const int kThreads = 4;
    const int kLines = 3000;
    {
        CRedirectedStderr redirect(file.fd());
        log_init("config-manager", LOG_OUTPUT_STDERR, 0, 2);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([t] {
                for (int i = 0; i < kLines; ++i) QLOG(1, "thread %d line %d %s|", t, i, std::string(100, 'x').c_str());
            });
        }
        for (auto& th : threads) th.join();
    }
    std::vector<int> next(kThreads, 0);
    for (const std::string& line : split_lines(file.read())) {
        int t = -1;
        int i = -1;
        const size_t at = line.find("thread ");
        ASSERT_NE(at, std::string::npos) << line;
        ASSERT_EQ(sscanf(line.c_str() + at, "thread %d line %d", &t, &i), 2) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads) << line;
        EXPECT_EQ(i, next[t]) << "out of order: " << line;
        next[t] = i + 1;
        EXPECT_NE(line.find("config-manager L1 "), std::string::npos) << line;
        EXPECT_EQ(line.substr(line.size() - 101), std::string(100, 'x') + "|") << line;
    }
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(next[t], kLines) << "thread " << t;
}

TEST(ALogger, WritesAFailureLineWithEverythingBeforeItBeforeReturning) {
    CTempFile file;
    ASSERT_GE(file.fd(), 0);
    CRedirectedStderr redirect(file.fd());
    for (int i = 0; i < 5; ++i) QLOG(1, "before the failure %d", i);
    QLOG(3, "the failure");
    // No flush: what a failure line guarantees must be on disk already.
    const std::vector<std::string> lines = split_lines(file.read());
    ASSERT_EQ(lines.size(), 6u);
    for (int i = 0; i < 5; ++i) EXPECT_NE(lines[i].find("before the failure " + std::to_string(i)), std::string::npos);
    EXPECT_NE(lines[5].find(" L3 "), std::string::npos) << lines[5];
    EXPECT_NE(lines[5].find("TestBody: the failure"), std::string::npos) << lines[5];
}

TEST(ALogger, MakesCallersWaitWhileItsOutputIsBlockedAndLosesNoLine) {
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    fcntl(pipe_fds[1], F_SETPIPE_SZ, 4096);
    // Far more than the pipe and the logger's buffers hold together.
    const int kLines = 12000;
    const std::string filler(120, 'y');
    std::atomic<bool> logged{false};
    std::string received;
    {
        CRedirectedStderr redirect(pipe_fds[1]);
        std::thread logger([&] {
            for (int i = 0; i < kLines; ++i) QLOG(1, "blocked %d %s", i, filler.c_str());
            logged = true;
        });
        // Nobody reads the pipe: a logger that dropped lines or grew without bound would be done
        // within milliseconds.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_FALSE(logged.load());
        std::thread reader([&] {
            const std::string last = "blocked " + std::to_string(kLines - 1) + " ";
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
            char buffer[65536];
            while (received.find(last) == std::string::npos && std::chrono::steady_clock::now() < deadline) {
                struct pollfd readable = {pipe_fds[0], POLLIN, 0};
                if (poll(&readable, 1, 100) != 1) continue;
                const ssize_t n = read(pipe_fds[0], buffer, sizeof(buffer));
                if (n <= 0) break;
                received.append(buffer, n);
            }
        });
        logger.join();
        log_flush();
        reader.join();
    }
    close(pipe_fds[0]);
    close(pipe_fds[1]);
    EXPECT_TRUE(logged.load());
    int next = 0;
    for (const std::string& line : split_lines(received)) {
        const size_t at = line.find("blocked ");
        if (at == std::string::npos) continue;
        EXPECT_EQ(line.substr(at), "blocked " + std::to_string(next) + " " + filler);
        ++next;
    }
    EXPECT_EQ(next, kLines);
}

TEST(ALoggerProcess, WritesEverythingBufferedWhenTheProcessExits) {
    const auto result = run_process({LOG_PROBE_PATH, "lines", "5000"});
    EXPECT_EQ(result.status, 0);
    expect_probe_lines(result.err, 5000);
}

TEST(ALoggerProcess, WritesEverythingBufferedBeforeDyingOfAFatalSignal) {
    const auto segv = run_process({LOG_PROBE_PATH, "segv", "300"});
#if defined(CM_UNDER_SANITIZER)
    // The sanitizer's own handler, which the logger's hands the fault on to, reports and exits.
    EXPECT_NE(segv.status, 0) << segv.err;
#else
    EXPECT_EQ(segv.status, 128 + SIGSEGV) << segv.err;
#endif
    expect_probe_lines(segv.err, 300);
    const auto aborted = run_process({LOG_PROBE_PATH, "abort", "300"});
    EXPECT_EQ(aborted.status, 128 + SIGABRT) << aborted.err;
    expect_probe_lines(aborted.err, 300);
}

TEST(ALoggerProcess, WritesTheLevelsItsVerbosityAndTheEnvironmentAsk) {
    auto levels_written = [](const std::string& verbosity, const std::vector<std::string>& environment) {
        const auto result = run_process({LOG_PROBE_PATH, "levels", verbosity}, environment);
        std::string levels;
        for (const std::string& line : split_lines(result.err)) {
            const size_t at = line.find(": level ");
            if (at != std::string::npos) levels += line.substr(at + 8);
        }
        return levels;
    };
    EXPECT_EQ(levels_written("2", {}), "123");
    EXPECT_EQ(levels_written("3", {}), "0123");
    EXPECT_EQ(levels_written("0", {}), "3");
    EXPECT_EQ(levels_written("1", {}), "23");
    EXPECT_EQ(levels_written("2", {"CONFIG_MANAGER_LOG_LEVEL=0"}), "0123");
    EXPECT_EQ(levels_written("2", {"CONFIG_MANAGER_LOG_LEVEL=3"}), "3");
    // A value that is no level leaves the verbosity in charge.
    EXPECT_EQ(levels_written("2", {"CONFIG_MANAGER_LOG_LEVEL=loud"}), "123");
}
