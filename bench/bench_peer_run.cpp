// dconf's write and read measured beside config-manager's set_config and get_config, in
// alternating rounds, each ratio being config-manager / dconf.
#include <unistd.h>

#include "bench_fixture.h"
#include "bench_peer_dconf.h"
#include "bench_run.h"

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

const char kPeerKey[] = "bench.peer";

// dconf keys are absolute paths.
std::string dconf_key(const std::string& name) { return "/bench/" + name; }

// The same keys and values the service starts with, so that both read from a store of one size.
bool fill(CDconfPeer& dconf, std::string& error) {
    std::vector<std::pair<std::string, std::string>> values;
    for (size_t i = 0; i < kRoundTripKeys; ++i) values.emplace_back(dconf_key(key_name(i)), key_value(i));
    if (!dconf.write_all(values, error)) return false;
    // A write that landed in the real user's database would be a harm, not just a wrong figure.
    if (access(dconf.database_path().c_str(), R_OK) != 0) {
        error = "dconf did not write " + dconf.database_path();
        return false;
    }
    std::string value;
    if (!dconf.read(dconf_key(key_name(kProbeKey)), value) || value != key_value(kProbeKey)) {
        error = "dconf read of " + dconf_key(key_name(kProbeKey)) + " gave '" + value + "', not '" +
                key_value(kProbeKey) + "'";
        return false;
    }
    return true;
}

}  // namespace

void CBenchRun::add_peer_pair(const std::string& peer_id, const std::string& peer_label, const std::string& id,
                              const std::string& label, const CPair<CRoundTrips>& pair) {
    m_report.figure(peer_id, peer_label, pair.baseline.calls_per_second, "calls/s",
                    latency_detail(pair.baseline) + "; " + std::to_string(kRoundTripKeys) +
                        " keys in its database, as in the service's store");
    m_report.figure(id, label, pair.measured.calls_per_second, "calls/s",
                    latency_detail(pair.measured) + "; ratio config-manager / dconf");
    m_report.ratio(id, pair.baseline.calls_per_second, pair.ratio);
    Json::Value& details = m_report.details()["dconf_peer"][id];
    details = latency_json(pair.measured);
    details["dconf"] = latency_json(pair.baseline);
    details["ratio"] = pair.ratio;
    if (pair.baseline.failures > 0) {
        m_report.problem(peer_label + ": " + std::to_string(pair.baseline.failures) + " calls failed");
    }
}

void CBenchRun::measure_dconf_peer() {
    if (!m_options.peer_dconf) return;
    const std::string missing = CDconfPeer::missing();
    if (!missing.empty()) {
        m_report.note("--peer dconf not measured: " + missing);
        return;
    }
    progress("dconf write and read beside set_config and get_config");
    CDconfPeer dconf;
    std::string error;
    if (!dconf.start(m_work_dir + "/dconf", error) || !fill(dconf, error)) {
        m_report.problem("dconf peer: " + error);
        return;
    }
    uint64_t written = 0;
    const CAction dconf_write = [&dconf, &written] {
        std::string ignored;
        return dconf.write(dconf_key(kPeerKey), "v" + std::to_string(++written), ignored);
    };
    const CPair<CRoundTrips> writes =
        run_sequential_pair(dconf_write, bus_action(m_client.get(), service_set(kPeerKey)), m_plan, kRounds);
    const std::string probe = dconf_key(key_name(kProbeKey));
    const CAction dconf_read = [&dconf, &probe] {
        std::string value;
        return dconf.read(probe, value);
    };
    const CPair<CRoundTrips> reads =
        run_sequential_pair(dconf_read, bus_action(m_client.get(), service_get()), m_plan, kRounds);

    add_peer_pair("dconf_write_sync", "dconf write (sync)", "set_config_vs_dconf_write", "set_config vs dconf write",
                  writes);
    add_peer_pair("dconf_read", "dconf read", "get_config_vs_dconf_read", "get_config vs dconf read", reads);
    Json::Value& details = m_report.details()["dconf_peer"];
    details["keys"] = static_cast<Json::UInt64>(kRoundTripKeys);
    details["rounds"] = kRounds;
    details["database"] = dconf.database_path();
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
