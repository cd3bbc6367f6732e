#include "bench_session.h"

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "bench_bus.h"
#include "bench_fixture.h"

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

const std::chrono::seconds kBusStartTimeout(10);

const char kBusConfig[] = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>session</type>
  <listen>unix:path=@DIR@/bus</listen>
  <auth>EXTERNAL</auth>
  <servicedir>@SERVICES@</servicedir>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
    <allow own="*"/>
  </policy>
</busconfig>
)";

bool make_dir(const std::string& path, std::string& error) {
    if (mkdir(path.c_str(), 0700) == 0) return true;
    error = "cannot create " + path;
    return false;
}

}  // namespace

std::string find_in_path(const std::string& program) {
    const char* path = getenv("PATH");
    std::string dirs = path != nullptr ? path : "/usr/bin:/bin";
    size_t begin = 0;
    while (begin <= dirs.size()) {
        size_t end = dirs.find(':', begin);
        if (end == std::string::npos) end = dirs.size();
        const std::string dir = dirs.substr(begin, end - begin);
        const std::string candidate = (dir.empty() ? "." : dir) + "/" + program;
        if (access(candidate.c_str(), X_OK) == 0) return candidate;
        begin = end + 1;
    }
    return "";
}

void CIsolatedSession::set_variable(const std::string& name, const std::string& value) {
    bool saved = false;
    for (const CSaved& s : m_saved) saved = saved || s.name == name;
    if (!saved) {
        const char* old = getenv(name.c_str());
        m_saved.push_back({name, old != nullptr, old != nullptr ? old : ""});
    }
    setenv(name.c_str(), value.c_str(), 1);
}

bool CIsolatedSession::write_bus_config(const std::vector<CActivatable>& services, std::string& error) {
    const std::string service_dir = m_dir + "/services";
    if (!make_dir(service_dir, error)) return false;
    for (const CActivatable& service : services) {
        const std::string text = "[D-BUS Service]\nName=" + service.name + "\nExec=" + service.exec + "\n";
        if (!write_text_file(service_dir + "/" + service.name + ".service", text, error)) return false;
    }
    // No standard service directories: only the services given can be started on this bus.
    std::string config = kBusConfig;
    config.replace(config.find("@SERVICES@"), 10, service_dir);
    config.replace(config.find("@DIR@"), 5, m_dir);
    return write_text_file(m_dir + "/bus.conf", config, error);
}

bool CIsolatedSession::start(const std::string& dir, const std::vector<CActivatable>& services, std::string& error) {
    m_dir = dir;
    if (!make_dir(m_dir, error) || !make_dir(home(), error) || !make_dir(config_home(), error) ||
        !make_dir(runtime_dir(), error) || !make_dir(m_dir + "/data", error) || !make_dir(m_dir + "/cache", error) ||
        !write_bus_config(services, error)) {
        return false;
    }
    const std::string daemon = find_in_path("dbus-daemon");
    if (daemon.empty()) {
        error = "dbus-daemon is not in PATH";
        return false;
    }
    m_address = "unix:path=" + m_dir + "/bus";
    set_variable("HOME", home());
    set_variable("XDG_CONFIG_HOME", config_home());
    set_variable("XDG_RUNTIME_DIR", runtime_dir());
    set_variable("XDG_DATA_HOME", m_dir + "/data");
    set_variable("XDG_CACHE_HOME", m_dir + "/cache");
    set_variable("DBUS_SESSION_BUS_ADDRESS", m_address);
    if (!m_daemon.spawn({daemon, "--config-file=" + m_dir + "/bus.conf", "--nofork", "--nosyslog"}, log_path(), m_dir,
                        error)) {
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + kBusStartTimeout;
    for (;;) {
        std::string connect_error;
        if (open_connection(m_address, "", connect_error)) return true;
        if (!m_daemon.running() || std::chrono::steady_clock::now() >= deadline) {
            error = "the session bus did not come up (see " + log_path() + "): " + connect_error;
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

void CIsolatedSession::stop() {
    m_daemon.stop();
    for (auto s = m_saved.rbegin(); s != m_saved.rend(); ++s) {
        if (s->was_set) {
            setenv(s->name.c_str(), s->value.c_str(), 1);
        } else {
            unsetenv(s->name.c_str());
        }
    }
    m_saved.clear();
    m_address.clear();
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
