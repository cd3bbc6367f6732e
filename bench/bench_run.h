// One benchmark run: the private bus, the services under test, the baseline responders, and
// the measurements, in the order they are printed.
#ifndef QUOREL_BENCH_BENCH_RUN_H
#define QUOREL_BENCH_BENCH_RUN_H

#include <memory>
#include <string>
#include <vector>

#include "bench_bus.h"
#include "bench_load.h"
#include "bench_monitor.h"
#include "bench_options.h"
#include "bench_process.h"
#include "bench_report.h"
#include "bench_stack.h"

namespace Quorel {
namespace Iot {
namespace Bench {

// The store the round trips run against, the key they read, and the number of alternating
// rounds of every pair.
constexpr size_t kRoundTripKeys = 1000;
constexpr size_t kProbeKey = 42;
constexpr unsigned kRounds = 5;

// One line on standard error, so a long run shows where it is.
void progress(const std::string& what);

// "p50 ... us, p99 ... us, N calls, N failed".
std::string latency_detail(const CRoundTrips& r);
Json::Value latency_json(const CRoundTrips& r);

class CBenchRun {
public:
    CBenchRun(const COptions& options, const std::string& address, const std::string& work_dir);
    // Returns the process exit status: 0 when every figure was measured (targets may miss), 2
    // when some could not be.
    int run();

private:
    // Round trips against a 1,000-key store.
    bool prepare_round_trips();
    void measure_round_trips();
    void measure_observed_sets();
    void measure_keychain_writes();
    // dconf's write and read beside set_config and get_config, with --peer dconf.
    void measure_dconf_peer();
    void add_peer_pair(const std::string& peer_id, const std::string& peer_label, const std::string& id,
                       const std::string& label, const CPair<CRoundTrips>& pair);
    void add_round_trips(const std::string& id, const std::string& label, const CPair<CRoundTrips>& pair,
                         const std::string& more);
    // Restarts with 1,000 / 10,000 / 100,000 keys.
    void measure_scaling();
    void measure_queries(size_t keys, Json::Value& details);
    // Sets the figure's target when it has a fixed bound.
    void hold_to_limit(const std::string& id, double value);
    void note_machine_load(double before, double after);

    CCallFactory echo_get() const;
    CCallFactory service_get() const;
    CCallFactory echo_set(const std::string& echo_name);
    CCallFactory service_set(const std::string& key);
    bool start_responder(CChildProcess& child, const std::vector<std::string>& args);

    COptions m_options;
    std::string m_address;
    std::string m_work_dir;
    CLoadPlan m_plan;
    CReport m_report;
    CServiceStack m_stack;
    CKeychainWriteCounter m_writes;
    CConnection m_client;
    CChildProcess m_echo;
    CChildProcess m_notifying_echo;  // an echo that notifies the observers of each set first
    std::vector<std::unique_ptr<CChildProcess>> m_observers;
    std::vector<std::string> m_observer_names;
    uint64_t m_set_counter = 0;
};

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
