// The targets the figures are held to and how a measurement is judged against them. Every
// target becomes a PASS/MISS line of the report.
#ifndef QUOREL_BENCH_BENCH_TARGETS_H
#define QUOREL_BENCH_BENCH_TARGETS_H

#include <cstdint>
#include <string>

#include "bench_load.h"

namespace Quorel {
namespace Iot {
namespace Bench {

// A share of the baseline's calls per second, optionally with a bound on the 99th percentile of
// the latency.
struct CRatioTarget {
    double least_ratio = 0;
    double most_p99_us = 0;  // 0: the latency is not bounded
};

// An upper bound on a figure's value (a duration, a size, a growth factor).
struct CLimitTarget {
    double most = 0;
    const char* unit = "";
};

extern const CRatioTarget kGetSequentialTarget;
extern const CRatioTarget kSetSequentialTarget;
extern const CRatioTarget kGetPipelinedTarget;
extern const CRatioTarget kSetObservedTarget;
extern const CLimitTarget kBatchGrowthTarget;

// E.g. ">= 0.60x baseline, p99 <= 1 ms".
std::string describe(const CRatioTarget& target, const std::string& baseline);
// A single failed call misses the target whatever the ratio: a fast error is no answer.
bool met(const CRatioTarget& target, double ratio, uint64_t failures, double p99_us);
bool met(const CRatioTarget& target, const CPair<CRoundTrips>& pair);

// E.g. "<= 15 ms".
std::string describe(const CLimitTarget& target);
// A negative value means it could not be measured, which misses.
bool met(const CLimitTarget& target, double value);

// The fixed bound of a figure of the growing stores (start-up, memory, queries), by figure id;
// null when that figure has none.
const CLimitTarget* limit_for(const std::string& figure_id);

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel

#endif
