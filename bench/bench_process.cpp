#include "bench_process.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <thread>

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

int exit_status(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    if (WIFSIGNALED(status)) return 128 + WTERMSIG(status);
    return -1;
}

// Runs in the child between fork and exec: only async-signal-safe calls.
[[noreturn]] void exec_child(char* const* argv, const char* log_path, const char* work_dir, pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    const int out = open(log_path[0] != '\0' ? log_path : "/dev/null", O_WRONLY | O_CREAT | O_APPEND, 0644);
    if (out >= 0) {
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
        if (out > STDERR_FILENO) close(out);
    }
    if (work_dir[0] != '\0' && chdir(work_dir) != 0) _exit(127);
    execv(argv[0], argv);
    _exit(127);
}

}  // namespace

std::string self_path() {
    char buffer[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", buffer, sizeof(buffer) - 1);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
}

bool CChildProcess::spawn(const std::vector<std::string>& argv, const std::string& log_path,
                          const std::string& work_dir, std::string& error) {
    stop();
    if (argv.empty() || access(argv[0].c_str(), X_OK) != 0) {
        error = "not an executable: " + (argv.empty() ? std::string("(none)") : argv[0]);
        return false;
    }
    std::vector<char*> raw;
    for (const std::string& arg : argv) raw.push_back(const_cast<char*>(arg.c_str()));
    raw.push_back(nullptr);
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid < 0) {
        error = std::string("fork: ") + strerror(errno);
        return false;
    }
    if (m_pid == 0) exec_child(raw.data(), log_path.c_str(), work_dir.c_str(), parent);
    return true;
}

bool CChildProcess::running() {
    if (m_pid <= 0) return false;
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_pid = -1;
        return false;
    }
    return true;
}

int CChildProcess::stop(std::chrono::milliseconds grace) {
    if (m_pid <= 0) return -1;
    kill(m_pid, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + grace;
    int status = 0;
    pid_t done = 0;
    while ((done = waitpid(m_pid, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (done == 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, &status, 0);
    }
    m_pid = -1;
    return exit_status(status);
}

long CChildProcess::status_field(const char* field) const {
    if (m_pid <= 0) return -1;
    std::ifstream in("/proc/" + std::to_string(m_pid) + "/status");
    std::string line;
    const size_t field_length = strlen(field);
    while (std::getline(in, line)) {
        if (line.compare(0, field_length, field) == 0) return std::stol(line.substr(field_length));
    }
    return -1;
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
