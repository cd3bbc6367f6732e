// CChildProcess: one program of the project (or a system one) run by a test: started with
// fork+exec, its standard output and error kept in files of its own, killed with the test
// (PR_SET_PDEATHSIG) and reaped. run_process() is the one-shot form for command-line programs.
#ifndef QUOREL_TESTSUPPORT_CHILD_PROCESS_H
#define QUOREL_TESTSUPPORT_CHILD_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Testing {

class CChildProcess {
public:
    CChildProcess();
    // Kills (SIGKILL) a child still running and removes the output files.
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    // Starts argv[0] (a path, or a name looked up in PATH) with this process's environment, each
    // "NAME=value" of environment replacing or adding one variable. With with_stdin, the child's
    // standard input is a pipe fed by write_stdin; otherwise /dev/null. False when the program
    // could not be started (the reason is in error()).
    bool start(const std::vector<std::string>& argv, const std::vector<std::string>& environment = {},
               bool with_stdin = false);

    bool write_stdin(const std::string& text);
    void close_stdin();

    bool running();
    bool signal(int number);
    // Waits up to timeout for the child to end; true once it has (see exit_status).
    bool wait_exit(std::chrono::milliseconds timeout);
    // SIGKILL and reap, if still running.
    void kill_and_reap();
    // The exit code, or 128 + the signal that ended it; -1 while running or never started.
    int exit_status() const { return m_status; }

    pid_t pid() const { return m_pid; }
    std::string out() const;  // everything written to standard output so far
    std::string err() const;  // everything written to standard error so far
    const std::string& error() const { return m_error; }

private:
    std::string m_dir;
    pid_t m_pid = -1;
    int m_stdin = -1;
    int m_status = -1;
    std::string m_error;
};

struct CProcessResult {
    int status = -1;  // exit code, 128 + signal, or -1 when it did not end within the time-out
    std::string out;
    std::string err;
};

// Runs argv to its end (killed after timeout), feeding stdin_text on its standard input.
CProcessResult run_process(const std::vector<std::string>& argv, const std::vector<std::string>& environment = {},
                           const std::string& stdin_text = "",
                           std::chrono::milliseconds timeout = std::chrono::seconds(20));

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel

#endif
