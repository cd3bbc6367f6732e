// A desktop session of its own for a peer measured beside config-manager: a dbus-daemon whose
// only activatable services are the ones given, and this process's HOME, XDG_* directories and
// session bus address pointing into a directory of the run, so that nothing of the real user's
// is read or written. The daemon and the services it activates inherit that environment.
#ifndef QUOREL_BENCH_BENCH_SESSION_H
#define QUOREL_BENCH_BENCH_SESSION_H

#include <string>
#include <utility>
#include <vector>

#include "bench_process.h"

namespace Quorel {
namespace Iot {
namespace Bench {

// A service the bus starts when its name is first called.
struct CActivatable {
    std::string name;
    std::string exec;
};

class CIsolatedSession {
public:
    CIsolatedSession() = default;
    ~CIsolatedSession() { stop(); }
    CIsolatedSession(const CIsolatedSession&) = delete;
    CIsolatedSession& operator=(const CIsolatedSession&) = delete;

    // Creates dir (which must not exist yet), points the environment into it and starts the
    // bus; false with the reason in error.
    bool start(const std::string& dir, const std::vector<CActivatable>& services, std::string& error);
    // Kills the bus and gives the environment back the values it had before start(). Libraries
    // that read a variable while the session ran may keep what they saw.
    void stop();

    // Sets a variable until stop(); before start() it reaches the bus and its services too.
    void set_variable(const std::string& name, const std::string& value);

    const std::string& address() const { return m_address; }
    std::string home() const { return m_dir + "/home"; }
    std::string config_home() const { return m_dir + "/config"; }
    std::string runtime_dir() const { return m_dir + "/runtime"; }
    // The bus's output and that of the services it started.
    std::string log_path() const { return m_dir + "/session-bus.log"; }

private:
    bool write_bus_config(const std::vector<CActivatable>& services, std::string& error);

    std::string m_dir;
    std::string m_address;
    // Variables as they were: name, whether it was set, its value.
    struct CSaved {
        std::string name;
        bool was_set = false;
        std::string value;
    };
    std::vector<CSaved> m_saved;
    CChildProcess m_daemon;
};

// The full path of an executable found in PATH, empty when there is none.
std::string find_in_path(const std::string& program);

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
