#include "bench_stack.h"

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>

#include "bench_bus.h"
#include "bench_fixture.h"

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

using Clock = std::chrono::steady_clock;

const char kServiceName[] = "iot.dmp.configmanager";
const char kAdapterName[] = "iot.dmp.config.adapter";
const char kKeychainName[] = "iot.gateway.security.keychain";
const std::chrono::seconds kStartTimeout(30);

double ms_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}

}  // namespace

bool CServiceStack::default_file(size_t keys, std::string& path, std::string& error) {
    auto found = m_default_files.find(keys);
    if (found != m_default_files.end()) {
        path = found->second;
        return true;
    }
    path = m_paths.work_dir + "/default-" + std::to_string(keys) + ".json";
    if (!write_default_file(path, keys, error)) return false;
    m_default_files[keys] = path;
    return true;
}

bool CServiceStack::start_keychain(std::string& error) {
    const std::string data_dir = m_paths.work_dir + "/keychain-" + std::to_string(m_generation);
    if (mkdir(data_dir.c_str(), 0700) != 0) {
        error = "cannot create " + data_dir;
        return false;
    }
    CNameWatch watch;
    if (!watch.start(m_paths.address, kKeychainName, error)) return false;
    if (!m_keychain.spawn({m_paths.keychain_devd, data_dir, m_paths.address}, m_paths.work_dir + "/keychain-devd.log",
                          m_paths.work_dir, error)) {
        return false;
    }
    Clock::time_point owned;
    if (!watch.wait_owned(kStartTimeout, owned)) {
        error = "keychain-devd did not take its bus name (see " + m_paths.work_dir + "/keychain-devd.log)";
        return false;
    }
    return true;
}

bool CServiceStack::start(size_t keys, CStartup& startup, std::string& error) {
    stop();
    ++m_generation;
    std::string defaults;
    if (!default_file(keys, defaults, error) || !start_keychain(error)) return false;
    CNameWatch service_watch;
    CNameWatch adapter_watch;
    if (!service_watch.start(m_paths.address, kServiceName, error) ||
        !adapter_watch.start(m_paths.address, kAdapterName, error)) {
        return false;
    }
    m_service_log = m_paths.work_dir + "/config-manager-" + std::to_string(m_generation) + ".log";
    const Clock::time_point launched = Clock::now();
    if (!m_service.spawn({m_paths.config_manager, defaults}, m_service_log, m_paths.work_dir, error)) return false;
    Clock::time_point service_owned;
    Clock::time_point adapter_owned;
    if (!service_watch.wait_owned(kStartTimeout, service_owned)) {
        error = "config-manager did not take " + std::string(kServiceName) + " (see " + m_service_log + ")";
        return false;
    }
    if (!adapter_watch.wait_owned(kStartTimeout, adapter_owned)) {
        error =
            "config-manager did not start its adapter " + std::string(kAdapterName) + " (see " + m_service_log + ")";
        return false;
    }
    startup.service_ms = ms_between(launched, service_owned);
    startup.adapter_ms = ms_between(launched, adapter_owned);
    return true;
}

int CServiceStack::stop() {
    const int status = m_service.stop();
    m_keychain.stop();
    return status;
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
