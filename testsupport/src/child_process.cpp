#include "quorel/testsupport/child_process.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "quorel/testsupport/wait.h"

extern char** environ;

namespace Quorel {
namespace Iot {
namespace Testing {

namespace {

std::string read_all(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string variable_name(const std::string& entry) { return entry.substr(0, entry.find('=')); }

std::vector<std::string> merged_environment(const std::vector<std::string>& overrides) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string text = *entry;
        bool replaced = false;
        for (const std::string& o : overrides) replaced = replaced || variable_name(o) == variable_name(text);
        if (!replaced) result.push_back(text);
    }
    result.insert(result.end(), overrides.begin(), overrides.end());
    return result;
}

int status_of(int wait_status) {
    return WIFEXITED(wait_status) ? WEXITSTATUS(wait_status) : 128 + WTERMSIG(wait_status);
}

}  // namespace

CChildProcess::CChildProcess() {
    char tmpl[] = "/tmp/cm-child-XXXXXX";
    if (mkdtemp(tmpl) != nullptr) m_dir = tmpl;
}

CChildProcess::~CChildProcess() {
    kill_and_reap();
    close_stdin();
    if (!m_dir.empty()) {
        unlink((m_dir + "/out").c_str());
        unlink((m_dir + "/err").c_str());
        rmdir(m_dir.c_str());
    }
}

bool CChildProcess::start(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                          bool with_stdin) {
    if (m_pid > 0 || m_dir.empty() || argv.empty()) {
        m_error = "already started, no folder for the output, or no program";
        return false;
    }
    // Everything the child needs is prepared here: between fork and exec it makes system calls only.
    std::vector<std::string> env = merged_environment(environment);
    std::vector<char*> envp;
    for (std::string& entry : env) envp.push_back(&entry[0]);
    envp.push_back(nullptr);
    std::vector<std::string> args = argv;
    std::vector<char*> arg_pointers;
    for (std::string& a : args) arg_pointers.push_back(&a[0]);
    arg_pointers.push_back(nullptr);
    // execvpe searches PATH only for a bare name.
    const int out = open((m_dir + "/out").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    const int err = open((m_dir + "/err").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    int in_pipe[2] = {-1, -1};
    const int in =
        with_stdin ? (pipe2(in_pipe, O_CLOEXEC) == 0 ? in_pipe[0] : -1) : open("/dev/null", O_RDONLY | O_CLOEXEC);
    int exec_errno_pipe[2];
    if (out < 0 || err < 0 || in < 0 || pipe2(exec_errno_pipe, O_CLOEXEC) != 0) {
        m_error = std::string("setting up the child's files: ") + strerror(errno);
        for (int fd : {out, err, in, in_pipe[1]})
            if (fd >= 0) close(fd);
        return false;
    }
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(127);
        dup2(in, STDIN_FILENO);
        dup2(out, STDOUT_FILENO);
        dup2(err, STDERR_FILENO);
        // The test may block signals in its threads; the child starts with none blocked.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execvpe(arg_pointers[0], arg_pointers.data(), envp.data());
        const int e = errno;
        ssize_t ignored = write(exec_errno_pipe[1], &e, sizeof(e));
        (void)ignored;
        _exit(127);
    }
    const int fork_errno = errno;
    close(out);
    close(err);
    close(in);
    close(exec_errno_pipe[1]);
    if (m_pid < 0) {
        m_error = std::string("fork: ") + strerror(fork_errno);
        close(exec_errno_pipe[0]);
        if (in_pipe[1] >= 0) close(in_pipe[1]);
        return false;
    }
    // The pipe closes on a successful exec; otherwise it carries exec's errno.
    int exec_errno = 0;
    const ssize_t n = read(exec_errno_pipe[0], &exec_errno, sizeof(exec_errno));
    close(exec_errno_pipe[0]);
    m_stdin = in_pipe[1];
    m_status = -1;
    if (n == static_cast<ssize_t>(sizeof(exec_errno))) {
        m_error = "exec " + argv[0] + ": " + strerror(exec_errno);
        kill_and_reap();
        return false;
    }
    return true;
}

bool CChildProcess::write_stdin(const std::string& text) {
    size_t done = 0;
    while (m_stdin >= 0 && done < text.size()) {
        const ssize_t n = write(m_stdin, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        done += static_cast<size_t>(n);
    }
    return m_stdin >= 0;
}

void CChildProcess::close_stdin() {
    if (m_stdin >= 0) close(m_stdin);
    m_stdin = -1;
}

bool CChildProcess::running() {
    if (m_pid <= 0) return false;
    int status = 0;
    if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
        m_status = status_of(status);
        m_pid = -1;
        return false;
    }
    return true;
}

bool CChildProcess::signal(int number) { return m_pid > 0 && kill(m_pid, number) == 0; }

bool CChildProcess::wait_exit(std::chrono::milliseconds timeout) {
    return wait_until([&] { return !running(); }, timeout);
}

void CChildProcess::kill_and_reap() {
    if (m_pid <= 0) return;
    kill(m_pid, SIGKILL);
    int status = 0;
    if (waitpid(m_pid, &status, 0) == m_pid) m_status = status_of(status);
    m_pid = -1;
}

std::string CChildProcess::out() const { return read_all(m_dir + "/out"); }
std::string CChildProcess::err() const { return read_all(m_dir + "/err"); }

CProcessResult run_process(const std::vector<std::string>& argv, const std::vector<std::string>& environment,
                           const std::string& stdin_text, std::chrono::milliseconds timeout) {
    CProcessResult result;
    CChildProcess child;
    if (!child.start(argv, environment, true)) {
        result.err = child.error();
        return result;
    }
    // Output goes to files, so a child that does not read all of its input cannot block the test
    // for long: the pipe buffer takes 64 KiB, and a broken pipe just ends the writing.
    signal(SIGPIPE, SIG_IGN);
    child.write_stdin(stdin_text);
    child.close_stdin();
    if (child.wait_exit(timeout)) result.status = child.exit_status();
    child.kill_and_reap();
    result.out = child.out();
    result.err = child.err();
    return result;
}

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
