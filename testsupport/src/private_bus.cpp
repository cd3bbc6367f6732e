#include "quorel/testsupport/private_bus.h"

#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace Quorel {
namespace Iot {
namespace Testing {

namespace {

// Everything is allowed: the daemon exists only for one test.
const char kConfig[] = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>custom</type>
  <listen>unix:dir=@DIR@</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow receive_sender="*"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
)";

}  // namespace

CPrivateBus::~CPrivateBus() { stop(); }

bool CPrivateBus::start() {
    char tmpl[] = "/tmp/cm-bus-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) return false;
    m_dir = tmpl;
    std::string config = kConfig;
    config.replace(config.find("@DIR@"), 5, m_dir);
    const std::string config_path = m_dir + "/bus.conf";
    {
        std::ofstream out(config_path);
        out << config;
        if (!out) return false;
    }
    int fds[2];
    if (pipe(fds) != 0) return false;
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid < 0) return false;
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) _exit(1);
        close(fds[0]);
        std::string fd_arg = "--print-address=" + std::to_string(fds[1]);
        std::string conf_arg = "--config-file=" + config_path;
        execlp("dbus-daemon", "dbus-daemon", conf_arg.c_str(), fd_arg.c_str(), "--nofork", "--nosyslog",
               static_cast<char*>(nullptr));
        _exit(127);
    }
    close(fds[1]);
    std::string line;
    char c;
    while (read(fds[0], &c, 1) == 1 && c != '\n') line.push_back(c);
    close(fds[0]);
    if (line.empty()) {
        stop();
        return false;
    }
    // The daemon prints "unix:path=...,guid=..."; clients need only the path part.
    const size_t comma = line.find(',');
    m_address = comma == std::string::npos ? line : line.substr(0, comma);
    return true;
}

void CPrivateBus::stop() {
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        int status;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
    }
    if (!m_dir.empty()) {
        std::string cmd = "rm -rf '" + m_dir + "'";
        int ignored = system(cmd.c_str());
        (void)ignored;
        m_dir.clear();
    }
}

void CPrivateBus::export_address() const { setenv("CONFIG_MANAGER_BUS_ADDRESS", m_address.c_str(), 1); }

}  // namespace Testing
}  // namespace Iot
}  // namespace Quorel
