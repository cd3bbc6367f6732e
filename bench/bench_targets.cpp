#include "bench_targets.h"

#include <cstdio>

namespace Quorel {
namespace Iot {
namespace Bench {

namespace {

struct CNamedLimit {
    const char* figure_id;
    CLimitTarget limit;
};

// Only the sizes a gateway is sized for carry a fixed bound; the others are watched through
// their growth.
const CNamedLimit kLimits[] = {
    {"startup_ms_10000", {40, "ms"}},
    {"startup_ms_100000", {300, "ms"}},
    {"rss_mib_10000", {10, "MiB"}},
    {"get_config_batch_all_10000", {15, "ms"}},
    {"get_config_keylist_all_10000", {8, "ms"}},
    {"get_config_batch_all_100000", {150, "ms"}},
};

std::string number(double value) {
    char buffer[32];
    snprintf(buffer, sizeof(buffer), "%g", value);
    return buffer;
}

std::string latency(double us) { return us >= 1000 ? number(us / 1000) + " ms" : number(us) + " us"; }

}  // namespace

const CRatioTarget kGetSequentialTarget{0.97};
const CRatioTarget kSetSequentialTarget{0.95};
const CRatioTarget kGetPipelinedTarget{0.90};
const CRatioTarget kSetObservedTarget{0.60, 1000};
const CLimitTarget kBatchGrowthTarget{15, "x"};

std::string describe(const CRatioTarget& target, const std::string& baseline) {
    char ratio[32];
    snprintf(ratio, sizeof(ratio), ">= %.2fx ", target.least_ratio);
    std::string text = ratio + baseline;
    if (target.most_p99_us > 0) text += ", p99 <= " + latency(target.most_p99_us);
    return text;
}

bool met(const CRatioTarget& target, double ratio, uint64_t failures, double p99_us) {
    if (failures > 0 || !(ratio >= target.least_ratio)) return false;
    return target.most_p99_us <= 0 || p99_us <= target.most_p99_us;
}

bool met(const CRatioTarget& target, const CPair<CRoundTrips>& pair) {
    return pair.measured.calls > 0 && met(target, pair.ratio, pair.measured.failures, pair.measured.p99_us);
}

std::string describe(const CLimitTarget& target) {
    const std::string unit = target.unit;
    return "<= " + number(target.most) + (unit == "x" ? unit : " " + unit);
}

bool met(const CLimitTarget& target, double value) { return value >= 0 && value <= target.most; }

const CLimitTarget* limit_for(const std::string& figure_id) {
    for (const CNamedLimit& named : kLimits) {
        if (figure_id == named.figure_id) return &named.limit;
    }
    return nullptr;
}

}  // namespace Bench
}  // namespace Iot
}  // namespace Quorel
