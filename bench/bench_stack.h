// The services under test: the development keychain service and config-manager, started on
// the benchmark's private bus with a generated default file and an empty keychain directory.
#ifndef QUOREL_BENCH_BENCH_STACK_H
#define QUOREL_BENCH_BENCH_STACK_H

#include <cstddef>
#include <map>
#include <string>

#include "bench_process.h"

namespace Quorel {
namespace Iot {
namespace Bench {

struct CStackPaths {
    std::string address;         // the private bus
    std::string work_dir;        // default files, keychain directories, logs
    std::string config_manager;  // executables
    std::string keychain_devd;
};

struct CStartup {
    double service_ms = 0;  // exec to "iot.dmp.configmanager" owned
    double adapter_ms = 0;  // exec to "iot.dmp.config.adapter" owned: the process is fully up
};

class CServiceStack {
public:
    explicit CServiceStack(const CStackPaths& paths) : m_paths(paths) {}
    ~CServiceStack() { stop(); }
    CServiceStack(const CServiceStack&) = delete;
    CServiceStack& operator=(const CServiceStack&) = delete;

    // Stops whatever runs, then starts the keychain service on a fresh directory and
    // config-manager with a default file of `keys` keys, timing config-manager's start.
    bool start(size_t keys, CStartup& startup, std::string& error);
    // Stops config-manager (SIGTERM) and the keychain service; returns config-manager's exit
    // status, -1 when it was not running.
    int stop();

    CChildProcess& service() { return m_service; }
    const std::string& service_log() const { return m_service_log; }

private:
    bool default_file(size_t keys, std::string& path, std::string& error);
    bool start_keychain(std::string& error);

    CStackPaths m_paths;
    std::map<size_t, std::string> m_default_files;
    unsigned m_generation = 0;
    std::string m_service_log;
    CChildProcess m_keychain;
    CChildProcess m_service;
};

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
