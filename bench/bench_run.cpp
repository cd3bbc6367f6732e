#include "bench_run.h"

#include <cstdio>
#include <thread>

#include "bench_fixture.h"
#include "bench_responder.h"
#include "bench_targets.h"

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

const unsigned kInFlight = 64;
const unsigned kObservers = 4;
const uint64_t kBurstCalls = 1000;
const char kEchoName[] = "bench.echo";
const char kNotifyingEchoName[] = "bench.echo.notifying";
const char kFreeKey[] = "bench.free";
const char kObservedKey[] = "bench.observed";
const char kBurstKey[] = "bench.burst";

template <typename Result>
Json::Value to_json(const Result& r) {
    Json::Value j;
    j["calls"] = static_cast<Json::UInt64>(r.calls);
    j["failures"] = static_cast<Json::UInt64>(r.failures);
    j["seconds"] = r.seconds;
    j["calls_per_second"] = r.calls_per_second;
    return j;
}

}  // namespace

std::string latency_detail(const CRoundTrips& r) {
    char buffer[200];
    snprintf(buffer, sizeof(buffer), "p50 %s us, p99 %s us, %llu calls, %llu failed", format_value(r.median_us).c_str(),
             format_value(r.p99_us).c_str(), static_cast<unsigned long long>(r.calls),
             static_cast<unsigned long long>(r.failures));
    return buffer;
}

Json::Value latency_json(const CRoundTrips& r) {
    Json::Value j = to_json(r);
    j["median_us"] = r.median_us;
    j["p99_us"] = r.p99_us;
    return j;
}

void progress(const std::string& what) {
    fprintf(stderr, "cm-bench: %s\n", what.c_str());
    fflush(stderr);
}

CBenchRun::CBenchRun(const COptions& options, const std::string& address, const std::string& work_dir)
    : m_options(options),
      m_address(address),
      m_work_dir(work_dir),
      m_stack({address, work_dir, options.config_manager, options.keychain_devd}) {
    if (options.quick) m_plan.duration = std::chrono::milliseconds(300);
}

CCallFactory CBenchRun::echo_get() const {
    const CTarget echo = subscriber_target(kEchoName);
    return [echo] { return make_call(echo, "get_config", {key_name(kProbeKey)}); };
}

CCallFactory CBenchRun::echo_set(const std::string& echo_name) {
    const CTarget echo = subscriber_target(echo_name);
    return [this, echo] { return make_call(echo, "set_config", {kFreeKey, "v" + std::to_string(++m_set_counter)}); };
}

CCallFactory CBenchRun::service_get() const {
    return [] { return make_call(config_manager_target(), "get_config", {key_name(kProbeKey)}); };
}

CCallFactory CBenchRun::service_set(const std::string& key) {
    // Every call stores a different value, so each one is a real change.
    return [this, key] {
        return make_call(config_manager_target(), "set_config", {key, "v" + std::to_string(++m_set_counter)});
    };
}

bool CBenchRun::start_responder(CChildProcess& child, const std::vector<std::string>& args) {
    std::string error;
    CNameWatch watch;
    std::vector<std::string> argv = {self_path()};
    argv.insert(argv.end(), args.begin(), args.end());
    std::chrono::steady_clock::time_point owned;
    if (!watch.start(m_address, args[2], error) || !child.spawn(argv, "", m_work_dir, error) ||
        !watch.wait_owned(std::chrono::seconds(10), owned)) {
        m_report.problem("cannot start the " + args[2] + " responder: " + error);
        return false;
    }
    return true;
}

bool CBenchRun::prepare_round_trips() {
    std::string error;
    if (!m_writes.start(m_address, error)) m_report.problem(error);
    CStartup startup;
    if (!m_stack.start(kRoundTripKeys, startup, error)) {
        m_report.problem(error);
        return false;
    }
    if (!start_responder(m_echo, {kEchoMode, m_address, kEchoName, key_value(kProbeKey)})) return false;
    for (unsigned i = 0; i < kObservers; ++i) {
        m_observer_names.push_back("bench.observer" + std::to_string(i));
        m_observers.push_back(std::make_unique<CChildProcess>());
        if (!start_responder(*m_observers.back(), {kObserverMode, m_address, m_observer_names.back()})) return false;
    }
    std::vector<std::string> notifying = {kEchoMode, m_address, kNotifyingEchoName, key_value(kProbeKey)};
    notifying.insert(notifying.end(), m_observer_names.begin(), m_observer_names.end());
    if (!start_responder(m_notifying_echo, notifying)) return false;
    m_client = open_connection(m_address, "", error);
    if (!m_client) {
        m_report.problem(error);
        return false;
    }
    // The service must answer what the echo answers, or the comparison means nothing.
    CMessage probe = service_get()();
    CMessage reply = call(m_client.get(), probe.get(), 5000, error);
    int32_t code = -1;
    std::string value;
    if (!read_code_and_text(reply.get(), code, value) || code != 0 || value != key_value(kProbeKey)) {
        m_report.problem("get_config of " + key_name(kProbeKey) + " did not answer (0, " + key_value(kProbeKey) +
                         "): code " + std::to_string(code) + ", value '" + value + "' " + error);
        return false;
    }
    return true;
}

void CBenchRun::measure_round_trips() {
    DBusConnection* client = m_client.get();
    progress("sequential get_config");
    const CPair<CRoundTrips> get = run_sequential_pair(client, echo_get(), service_get(), m_plan, kRounds);
    progress("pipelined get_config");
    const CPair<CThroughput> piped = run_pipelined_pair(client, echo_get(), service_get(), kInFlight, m_plan, kRounds);
    progress("set_config without observers");
    const uint64_t writes_before = m_writes.writes();
    const CPair<CRoundTrips> set = run_sequential_pair(client, echo_get(), service_set(kFreeKey), m_plan, kRounds);
    const uint64_t set_writes = m_writes.writes() - writes_before;
    // The same against an echo of the same call: what the bus itself costs for a set's message.
    const CPair<CRoundTrips> set_like =
        run_sequential_pair(client, echo_set(kEchoName), service_set(kFreeKey), m_plan, kRounds);

    m_report.figure("baseline_sequential", "baseline get_config, sequential", get.baseline.calls_per_second, "calls/s",
                    latency_detail(get.baseline));
    add_round_trips("get_config_sequential", "get_config, sequential", get, "");
    m_report.target("get_config_sequential", describe(kGetSequentialTarget, "baseline"),
                    met(kGetSequentialTarget, get));
    add_round_trips("set_config_sequential", "set_config, no observers, sequential", set,
                    ", " + std::to_string(set_writes) + " keychain writes");
    m_report.target("set_config_sequential", describe(kSetSequentialTarget, "baseline"),
                    met(kSetSequentialTarget, set));
    add_round_trips("set_config_vs_echo_set", "set_config vs an echo of set_config", set_like,
                    " (the echo answers the same call)");
    m_report.figure("baseline_pipelined", "baseline get_config, 64 in flight", piped.baseline.calls_per_second,
                    "calls/s");
    m_report.figure("get_config_pipelined", "get_config, 64 in flight", piped.measured.calls_per_second, "calls/s",
                    std::to_string(piped.measured.failures) + " failed");
    m_report.ratio("get_config_pipelined", piped.baseline.calls_per_second, piped.ratio);
    m_report.target("get_config_pipelined", describe(kGetPipelinedTarget, "piped baseline"),
                    piped.measured.calls > 0 && met(kGetPipelinedTarget, piped.ratio, piped.measured.failures, 0));

    Json::Value& details = m_report.details()["round_trips"];
    details["keys"] = static_cast<Json::UInt64>(kRoundTripKeys);
    details["rounds"] = kRounds;
    details["get_config_pipelined"] = to_json(piped.measured);
    details["get_config_pipelined"]["baseline"] = to_json(piped.baseline);
    details["in_flight"] = kInFlight;
    details["set_config_sequential"]["keychain_writes"] = static_cast<Json::UInt64>(set_writes);
}

void CBenchRun::add_round_trips(const std::string& id, const std::string& label, const CPair<CRoundTrips>& pair,
                                const std::string& more) {
    char baseline[80];
    snprintf(baseline, sizeof(baseline), "; baseline in the same rounds %.0f calls/s", pair.baseline.calls_per_second);
    m_report.figure(id, label, pair.measured.calls_per_second, "calls/s",
                    latency_detail(pair.measured) + more + baseline);
    m_report.ratio(id, pair.baseline.calls_per_second, pair.ratio);
    Json::Value& details = m_report.details()["round_trips"][id];
    details = latency_json(pair.measured);
    details["baseline"] = latency_json(pair.baseline);
}

void CBenchRun::measure_observed_sets() {
    progress("set_config with 4 observers");
    std::string error;
    for (const std::string& name : m_observer_names) {
        CMessage request = make_call(config_manager_target(), "subscribe_config", {name, kObservedKey});
        append_int32(request.get(), 1);
        CMessage reply = call(m_client.get(), request.get(), 5000, error);
        int32_t code = -1;
        if (!read_code(reply.get(), code) || code != 0) {
            m_report.problem("subscribe_config(" + name + ") answered " + std::to_string(code) + " " + error);
            return;
        }
    }
    const CPair<CRoundTrips> pair =
        run_sequential_pair(m_client.get(), echo_get(), service_set(kObservedKey), m_plan, kRounds);
    const CRoundTrips& set = pair.measured;
    const int32_t expected = static_cast<int32_t>(set.calls + m_plan.warm_up);
    // Notifications are sent without waiting for the observers: give them time to arrive.
    int32_t least = 0;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    do {
        least = expected;
        for (const std::string& name : m_observer_names) {
            CMessage request = make_call(subscriber_target(name), "notify_count", {});
            CMessage reply = call(m_client.get(), request.get(), 2000, error);
            int32_t code = -1;
            int32_t count = 0;
            DBusMessageIter iter;
            if (read_code(reply.get(), code) && dbus_message_iter_init(reply.get(), &iter) &&
                dbus_message_iter_next(&iter) && dbus_message_iter_get_arg_type(&iter) == DBUS_TYPE_INT32) {
                dbus_message_iter_get_basic(&iter, &count);
            }
            least = std::min(least, count);
        }
        if (least >= expected) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    } while (std::chrono::steady_clock::now() < deadline);

    add_round_trips("set_config_observed_sequential", "set_config, 4 observers, sequential", pair,
                    ", each observer notified " + std::to_string(least) + "/" + std::to_string(expected));
    m_report.target("set_config_observed_sequential", describe(kSetObservedTarget, "baseline"),
                    met(kSetObservedTarget, pair));
    // The bus's own cost of the pattern: an echo that sends the same four notifications first.
    const CPair<CRoundTrips> like =
        run_sequential_pair(m_client.get(), echo_set(kNotifyingEchoName), service_set(kObservedKey), m_plan, kRounds);
    add_round_trips("set_config_observed_vs_notifying_echo", "set_config, 4 observers vs an echo notifying 4", like,
                    " (the echo notifies the same observers, then answers)");
    Json::Value& details = m_report.details()["round_trips"]["set_config_observed_sequential"];
    details["observers"] = kObservers;
    details["notifications_expected"] = expected;
    details["notifications_least_received"] = least;
    if (least < expected) {
        m_report.problem("observers received " + std::to_string(least) + " of " + std::to_string(expected) +
                         " notifications");
    }
}

void CBenchRun::measure_keychain_writes() {
    progress("keychain writes of a burst of 1000 set_config");
    if (!m_writes.wait_quiet(std::chrono::milliseconds(1200), std::chrono::seconds(10))) {
        m_report.problem("the store kept writing to the keychain with no change coming in");
    }
    const uint64_t writes_before = m_writes.writes();
    const uint64_t bytes_before = m_writes.bytes();
    const CRoundTrips burst = run_sequential_count(m_client.get(), service_set(kBurstKey), kBurstCalls);
    // The saver wakes at least once a second; after 1.5 s without a write the burst is saved.
    const bool settled = m_writes.wait_quiet(std::chrono::milliseconds(1500), std::chrono::seconds(15));
    const uint64_t writes = m_writes.writes() - writes_before;
    const double mib = static_cast<double>(m_writes.bytes() - bytes_before) / (1024.0 * 1024.0);
    char detail[200];
    snprintf(detail, sizeof(detail), "burst took %.0f ms (%llu failed); %.1f MiB written; %.2f writes per set",
             burst.seconds * 1000, static_cast<unsigned long long>(burst.failures), mib,
             static_cast<double>(writes) / static_cast<double>(kBurstCalls));
    m_report.figure("keychain_writes_per_1000_sets", "keychain writes for 1000 set_config", static_cast<double>(writes),
                    "writes", detail);
    Json::Value& details = m_report.details()["keychain_writes"];
    details["sets"] = static_cast<Json::UInt64>(kBurstCalls);
    details["writes"] = static_cast<Json::UInt64>(writes);
    details["bytes"] = static_cast<Json::UInt64>(m_writes.bytes() - bytes_before);
    details["burst_seconds"] = burst.seconds;
    details["settled"] = settled;
}

void CBenchRun::note_machine_load(double before, double after) {
    m_report.details()["load_average"]["before"] = before;
    m_report.details()["load_average"]["after"] = after;
    // The benchmark itself keeps about one CPU busy; more than that is someone else's work.
    const double cpus = static_cast<double>(std::thread::hardware_concurrency());
    if (std::max(before, after) <= 1.0 + 0.25 * cpus) return;
    char text[240];
    snprintf(text, sizeof(text),
             "the machine was busy (load average %.1f before, %.1f after, %.0f CPUs): absolute figures are noisy; "
             "ratios are medians of alternating rounds",
             before, after, cpus);
    m_report.note(text);
}

int CBenchRun::run() {
    const double load_before = load_average();
    if (prepare_round_trips()) {
        measure_round_trips();
        measure_observed_sets();
        measure_keychain_writes();
        measure_dconf_peer();
    }
    m_report.details()["round_trips"]["service_exit_status"] = m_stack.stop();
    m_client.reset();
    m_writes.stop();
    m_echo.stop();
    m_notifying_echo.stop();
    m_observers.clear();
    measure_scaling();
    note_machine_load(load_before, load_average());
    m_report.print(stdout);
    std::string error;
    if (!m_report.write(m_options.out, error)) {
        fprintf(stderr, "cm-bench: %s\n", error.c_str());
        return 1;
    }
    printf("figures written to %s\n", m_options.out.c_str());
    return m_report.problems() == 0 ? 0 : 2;
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
