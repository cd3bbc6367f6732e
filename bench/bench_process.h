// A child process of the benchmark: started with fork+exec, its standard output and error sent
// to a log file, killed with the benchmark if the benchmark dies (PR_SET_PDEATHSIG), and
// stopped with SIGTERM (SIGKILL after a grace period) when the object goes.
// Spawn from the main thread only: the death signal follows the thread that forked.
#ifndef QUOREL_BENCH_BENCH_PROCESS_H
#define QUOREL_BENCH_BENCH_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace Quorel {
namespace Iot {
namespace Bench {

class CChildProcess {
public:
    CChildProcess() = default;
    ~CChildProcess() { stop(); }
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    // argv[0] is the executable path. An empty log path discards the output.
    bool spawn(const std::vector<std::string>& argv, const std::string& log_path, const std::string& work_dir,
               std::string& error);
    // Returns the exit status (the signal number + 128 when killed), or -1 when none ran.
    int stop(std::chrono::milliseconds grace = std::chrono::milliseconds(5000));
    bool running();

    pid_t pid() const { return m_pid; }
    // Resident and peak resident memory in KiB from /proc/<pid>/status; -1 when unknown.
    long rss_kib() const { return status_field("VmRSS:"); }
    long peak_rss_kib() const { return status_field("VmHWM:"); }

private:
    long status_field(const char* field) const;

    pid_t m_pid = -1;
};

// The path of the running executable ("/proc/self/exe" resolved).
std::string self_path();

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
