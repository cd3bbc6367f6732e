// The load patterns: sequential round trips (one call in flight, each latency recorded),
// pipelined calls (a fixed number in flight) and repeated timing of one slow call.
#ifndef QUOREL_BENCH_BENCH_LOAD_H
#define QUOREL_BENCH_BENCH_LOAD_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "bench_bus.h"

namespace Quorel {
namespace Iot {
namespace Bench {

// Builds the next call; called once per call, so it may vary the arguments.
using CCallFactory = std::function<CMessage()>;
// One complete call of any kind (a bus round trip, a library call of a peer); true when it
// succeeded.
using CAction = std::function<bool()>;

// A blocking call of the factory's message that succeeds on a reply with result code 0.
CAction bus_action(DBusConnection* connection, const CCallFactory& factory);

struct CRoundTrips {
    uint64_t calls = 0;
    uint64_t failures = 0;  // error replies, time-outs and result codes other than 0
    double seconds = 0;
    double calls_per_second = 0;
    double median_us = 0;
    double p99_us = 0;
};

struct CThroughput {
    uint64_t calls = 0;
    uint64_t failures = 0;
    double seconds = 0;
    double calls_per_second = 0;
};

// How long each measurement runs, after warm_up calls that are not counted.
struct CLoadPlan {
    std::chrono::milliseconds duration{1500};
    uint64_t warm_up = 200;
    uint64_t max_calls = 200000;
};

CRoundTrips run_sequential(const CAction& action, const CLoadPlan& plan);
CRoundTrips run_sequential(DBusConnection* connection, const CCallFactory& factory, const CLoadPlan& plan);
// Exactly count calls, one after the other (no warm-up).
CRoundTrips run_sequential_count(DBusConnection* connection, const CCallFactory& factory, uint64_t count);
CThroughput run_pipelined(DBusConnection* connection, const CCallFactory& factory, unsigned in_flight,
                          const CLoadPlan& plan);

// A measurement and the baseline taken in alternating rounds, so that a change in the machine's
// load during the run hits both alike. ratio is the median over the rounds of measured / baseline
// calls per second, which a burst of foreign load in one round does not move.
template <typename Result>
struct CPair {
    Result baseline;
    Result measured;
    double ratio = 0;
};
CPair<CRoundTrips> run_sequential_pair(const CAction& baseline, const CAction& measured, const CLoadPlan& plan,
                                       unsigned rounds);
CPair<CRoundTrips> run_sequential_pair(DBusConnection* connection, const CCallFactory& baseline,
                                       const CCallFactory& measured, const CLoadPlan& plan, unsigned rounds);
CPair<CThroughput> run_pipelined_pair(DBusConnection* connection, const CCallFactory& baseline,
                                      const CCallFactory& measured, unsigned in_flight, const CLoadPlan& plan,
                                      unsigned rounds);

// Times one call repeatedly: at least min_runs, then more while the budget lasts, up to
// max_runs. Returns the durations in milliseconds; the first reply is kept in first_reply
// when given. An empty result means the call failed.
std::vector<double> time_calls(DBusConnection* connection, const CCallFactory& factory, unsigned min_runs,
                               unsigned max_runs, std::chrono::milliseconds budget, std::string& error,
                               CMessage* first_reply = nullptr);

double median(std::vector<double> values);
double percentile(std::vector<double> values, double fraction);

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
