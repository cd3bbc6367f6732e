// How a measurement is judged against its target.
#include "bench_targets.h"

#include <gtest/gtest.h>

using namespace Quorel::Iot::Bench;

namespace {

CPair<CRoundTrips> pair_of(double ratio, uint64_t failures, double p99_us) {
    CPair<CRoundTrips> pair;
    pair.measured.calls = 1000;
    pair.measured.failures = failures;
    pair.measured.p99_us = p99_us;
    pair.ratio = ratio;
    return pair;
}

}  // namespace

TEST(ARatioTarget, PassesAtItsBoundAndMissesJustBelow) {
    EXPECT_TRUE(met(kGetSequentialTarget, pair_of(0.97, 0, 5000)));
    EXPECT_FALSE(met(kGetSequentialTarget, pair_of(0.969, 0, 80)));
    EXPECT_TRUE(met(kSetSequentialTarget, pair_of(0.95, 0, 80)));
    EXPECT_FALSE(met(kSetSequentialTarget, pair_of(0.949, 0, 80)));
}

TEST(ARatioTarget, MissesOnAnyFailedCallOrWhenNothingWasMeasured) {
    EXPECT_FALSE(met(kGetPipelinedTarget, 1.2, 1, 0));
    CPair<CRoundTrips> none = pair_of(1.0, 0, 0);
    none.measured.calls = 0;
    EXPECT_FALSE(met(kGetSequentialTarget, none));
}

TEST(ARatioTarget, WithALatencyBoundNeedsBothTheRatioAndTheP99) {
    EXPECT_TRUE(met(kSetObservedTarget, pair_of(0.60, 0, 1000)));
    EXPECT_FALSE(met(kSetObservedTarget, pair_of(0.90, 0, 1001)));
    EXPECT_FALSE(met(kSetObservedTarget, pair_of(0.59, 0, 300)));
    EXPECT_EQ(describe(kSetObservedTarget, "baseline"), ">= 0.60x baseline, p99 <= 1 ms");
    EXPECT_EQ(describe(kGetPipelinedTarget, "piped baseline"), ">= 0.90x piped baseline");
}

TEST(ALimitTarget, BoundsTheGatewaySizesOnly) {
    const CLimitTarget* startup = limit_for("startup_ms_100000");
    ASSERT_NE(startup, nullptr);
    EXPECT_TRUE(met(*startup, 300));
    EXPECT_FALSE(met(*startup, 300.1));
    EXPECT_EQ(describe(*startup), "<= 300 ms");
    EXPECT_EQ(limit_for("startup_ms_1000"), nullptr);
    EXPECT_EQ(limit_for("get_config_batch_1pct_10000"), nullptr);
}

TEST(ALimitTarget, MissesAValueThatCouldNotBeMeasured) {
    const CLimitTarget* memory = limit_for("rss_mib_10000");
    ASSERT_NE(memory, nullptr);
    EXPECT_FALSE(met(*memory, -1));
    EXPECT_EQ(describe(kBatchGrowthTarget), "<= 15x");
}
