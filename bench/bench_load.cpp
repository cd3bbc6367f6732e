#include "bench_load.h"

#include <algorithm>
#include <cmath>

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

using Clock = std::chrono::steady_clock;

const int kCallTimeoutMs = 10000;
const int kSlowCallTimeoutMs = 120000;

double seconds_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

bool succeeded(DBusMessage* reply) {
    int32_t code = -1;
    return read_code(reply, code) && code == 0;
}

// Keeps in_flight calls outstanding until the deadline or call limit, then waits for the
// stragglers. Counts only replies that arrived before the window closed.
CThroughput pipeline(DBusConnection* connection, const CCallFactory& factory, unsigned in_flight,
                     Clock::time_point deadline, uint64_t max_calls) {
    CThroughput result;
    unsigned outstanding = 0;
    uint64_t sent = 0;
    bool send_failed = false;
    const Clock::time_point started = Clock::now();
    Clock::time_point window_end = deadline;
    bool window_open = true;
    while (outstanding > 0 || (window_open && !send_failed)) {
        while (window_open && !send_failed && outstanding < in_flight && sent < max_calls) {
            CMessage request = factory();
            if (!request || !dbus_connection_send(connection, request.get(), nullptr)) {
                send_failed = true;
                break;
            }
            ++outstanding;
            ++sent;
        }
        if (!dbus_connection_read_write(connection, 1000)) break;
        while (CMessage message{dbus_connection_pop_message(connection)}) {
            const int type = dbus_message_get_type(message.get());
            if (type != DBUS_MESSAGE_TYPE_METHOD_RETURN && type != DBUS_MESSAGE_TYPE_ERROR) continue;
            --outstanding;
            if (!window_open) continue;
            ++result.calls;
            if (!succeeded(message.get())) ++result.failures;
        }
        const Clock::time_point now = Clock::now();
        if (window_open && (now >= deadline || result.calls >= max_calls)) {
            window_open = false;
            window_end = now;
        }
        if (!window_open && now - window_end > std::chrono::seconds(15)) break;  // lost replies
    }
    result.seconds = seconds_between(started, window_end);
    result.calls_per_second = result.seconds > 0 ? static_cast<double>(result.calls) / result.seconds : 0;
    return result;
}

// Sequential calls of one or more rounds, summarised at the end.
struct CSamples {
    uint64_t calls = 0;
    uint64_t failures = 0;
    double seconds = 0;
    std::vector<double> latencies_us;

    CRoundTrips summary() const;
};

// Returns the round's calls per second.
double sample_sequential(const CAction& action, const CLoadPlan& plan, CSamples& samples) {
    for (uint64_t i = 0; i < plan.warm_up; ++i) action();
    const Clock::time_point started = Clock::now();
    const Clock::time_point deadline = started + plan.duration;
    Clock::time_point now = started;
    uint64_t calls = 0;
    while (now < deadline && calls < plan.max_calls) {
        const Clock::time_point before = Clock::now();
        if (!action()) ++samples.failures;
        now = Clock::now();
        samples.latencies_us.push_back(std::chrono::duration<double, std::micro>(now - before).count());
        ++calls;
    }
    const double seconds = seconds_between(started, now);
    samples.calls += calls;
    samples.seconds += seconds;
    return seconds > 0 ? static_cast<double>(calls) / seconds : 0;
}

double ratio_of(double measured, double baseline) { return baseline > 0 ? measured / baseline : 0; }

// Adds the round and returns its calls per second.
double add(CThroughput& total, const CThroughput& round) {
    total.calls += round.calls;
    total.failures += round.failures;
    total.seconds += round.seconds;
    total.calls_per_second = total.seconds > 0 ? static_cast<double>(total.calls) / total.seconds : 0;
    return round.calls_per_second;
}

CLoadPlan round_plan(const CLoadPlan& plan, unsigned rounds, unsigned round) {
    CLoadPlan part = plan;
    part.duration = plan.duration / rounds;
    if (round > 0) part.warm_up = 0;
    return part;
}

}  // namespace

CRoundTrips CSamples::summary() const {
    CRoundTrips result;
    result.calls = calls;
    result.failures = failures;
    result.seconds = seconds;
    result.calls_per_second = seconds > 0 ? static_cast<double>(calls) / seconds : 0;
    result.median_us = median(latencies_us);
    result.p99_us = percentile(latencies_us, 0.99);
    return result;
}

double percentile(std::vector<double> values, double fraction) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const double rank = std::ceil(fraction * static_cast<double>(values.size()));
    const size_t index = rank < 1 ? 0 : static_cast<size_t>(rank) - 1;
    return values[std::min(index, values.size() - 1)];
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    const size_t mid = values.size() / 2;
    return values.size() % 2 != 0 ? values[mid] : (values[mid - 1] + values[mid]) / 2;
}

CAction bus_action(DBusConnection* connection, const CCallFactory& factory) {
    return [connection, factory] {
        CMessage request = factory();
        std::string error;
        CMessage reply = request ? call(connection, request.get(), kCallTimeoutMs, error) : nullptr;
        return succeeded(reply.get());
    };
}

CRoundTrips run_sequential(const CAction& action, const CLoadPlan& plan) {
    CSamples samples;
    sample_sequential(action, plan, samples);
    return samples.summary();
}

CRoundTrips run_sequential(DBusConnection* connection, const CCallFactory& factory, const CLoadPlan& plan) {
    return run_sequential(bus_action(connection, factory), plan);
}

CRoundTrips run_sequential_count(DBusConnection* connection, const CCallFactory& factory, uint64_t count) {
    CLoadPlan plan;
    plan.duration = std::chrono::hours(1);
    plan.warm_up = 0;
    plan.max_calls = count;
    return run_sequential(connection, factory, plan);
}

CThroughput run_pipelined(DBusConnection* connection, const CCallFactory& factory, unsigned in_flight,
                          const CLoadPlan& plan) {
    if (plan.warm_up > 0) pipeline(connection, factory, in_flight, Clock::now() + std::chrono::hours(1), plan.warm_up);
    return pipeline(connection, factory, in_flight, Clock::now() + plan.duration, plan.max_calls);
}

CPair<CRoundTrips> run_sequential_pair(const CAction& baseline, const CAction& measured, const CLoadPlan& plan,
                                       unsigned rounds) {
    CSamples baseline_samples;
    CSamples measured_samples;
    std::vector<double> ratios;
    for (unsigned round = 0; round < rounds; ++round) {
        const CLoadPlan part = round_plan(plan, rounds, round);
        const double base = sample_sequential(baseline, part, baseline_samples);
        ratios.push_back(ratio_of(sample_sequential(measured, part, measured_samples), base));
    }
    return {baseline_samples.summary(), measured_samples.summary(), median(ratios)};
}

CPair<CRoundTrips> run_sequential_pair(DBusConnection* connection, const CCallFactory& baseline,
                                       const CCallFactory& measured, const CLoadPlan& plan, unsigned rounds) {
    return run_sequential_pair(bus_action(connection, baseline), bus_action(connection, measured), plan, rounds);
}

CPair<CThroughput> run_pipelined_pair(DBusConnection* connection, const CCallFactory& baseline,
                                      const CCallFactory& measured, unsigned in_flight, const CLoadPlan& plan,
                                      unsigned rounds) {
    CPair<CThroughput> result;
    std::vector<double> ratios;
    for (unsigned round = 0; round < rounds; ++round) {
        const CLoadPlan part = round_plan(plan, rounds, round);
        const double base = add(result.baseline, run_pipelined(connection, baseline, in_flight, part));
        ratios.push_back(ratio_of(add(result.measured, run_pipelined(connection, measured, in_flight, part)), base));
    }
    result.ratio = median(ratios);
    return result;
}

std::vector<double> time_calls(DBusConnection* connection, const CCallFactory& factory, unsigned min_runs,
                               unsigned max_runs, std::chrono::milliseconds budget, std::string& error,
                               CMessage* first_reply) {
    std::vector<double> durations_ms;
    const Clock::time_point deadline = Clock::now() + budget;
    while (durations_ms.size() < max_runs && (durations_ms.size() < min_runs || Clock::now() < deadline)) {
        CMessage request = factory();
        const Clock::time_point before = Clock::now();
        CMessage reply = request ? call(connection, request.get(), kSlowCallTimeoutMs, error) : nullptr;
        const Clock::time_point after = Clock::now();
        if (!reply) return {};
        durations_ms.push_back(std::chrono::duration<double, std::milli>(after - before).count());
        if (first_reply != nullptr && !*first_reply) *first_reply = std::move(reply);
    }
    return durations_ms;
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
