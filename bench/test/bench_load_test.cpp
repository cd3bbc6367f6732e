// The load patterns against the echo responder on a private bus.
#include "bench_load.h"

#include <gtest/gtest.h>

#include <memory>

#include "bench_bus.h"
#include "bench_fixture.h"
#include "bench_responder.h"
#include "quorel/testsupport/private_bus.h"
#include "quorel/testsupport/wait.h"
#include "responder_thread.h"

using namespace Quorel::Iot::Bench;
using Quorel::Iot::Testing::CPrivateBus;
using Quorel::Iot::Testing::wait_until;

namespace {

const char kEcho[] = "bench.echo.test";

class AnEchoService : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.start());
        echo = std::make_unique<CResponderThread>(kEchoMode, bus, kEcho);
        std::string error;
        client = open_connection(bus.address(), "", error);
        ASSERT_TRUE(client) << error;
        ASSERT_TRUE(wait_until([this] {
            CErrorGuard e;
            return dbus_bus_name_has_owner(client.get(), kEcho, e.get()) != FALSE;
        }));
    }
    void TearDown() override {
        client.reset();
        echo.reset();  // stops the bus, which ends the responder
    }

    CCallFactory get(const std::string& member = "get_config") const {
        return [member] { return make_call(subscriber_target(kEcho), member, {key_name(42)}); };
    }

    CPrivateBus bus;
    std::unique_ptr<CResponderThread> echo;
    CConnection client;
    CLoadPlan plan{std::chrono::milliseconds(150), 10, 100000};
};

}  // namespace

TEST_F(AnEchoService, AnswersGetConfigWithCodeZeroAndItsValue) {
    std::string error;
    CMessage request = get()();
    CMessage reply = call(client.get(), request.get(), 2000, error);
    int32_t code = -1;
    std::string value;
    ASSERT_TRUE(read_code_and_text(reply.get(), code, value)) << error;
    EXPECT_EQ(code, 0);
    EXPECT_EQ(value, "value-000042");
}

TEST_F(AnEchoService, GivesSequentialRoundTripsWithOrderedLatencies) {
    const CRoundTrips r = run_sequential(client.get(), get(), plan);
    EXPECT_GT(r.calls, 10u);
    EXPECT_EQ(r.failures, 0u);
    EXPECT_NEAR(r.calls_per_second, static_cast<double>(r.calls) / r.seconds, 1e-6);
    EXPECT_GT(r.median_us, 0);
    EXPECT_GE(r.p99_us, r.median_us);
}

TEST_F(AnEchoService, AnswersSetsWithZeroAndCountsRepliesWithoutACodeZeroAsFailures) {
    // Other members get an empty return, which carries no result code.
    const CRoundTrips r = run_sequential_count(client.get(), get("unsubscribe_config"), 20);
    EXPECT_EQ(r.calls, 20u);
    EXPECT_EQ(r.failures, 20u);
    // set_config is answered as the service answers it, so that sets have a baseline of their own.
    const CRoundTrips sets = run_sequential_count(client.get(), get("set_config"), 20);
    EXPECT_EQ(sets.failures, 0u);
}

TEST_F(AnEchoService, KeepsPipelinedCallsFlowingAndLeavesNoReplyBehind) {
    const CThroughput t = run_pipelined(client.get(), get(), 64, plan);
    EXPECT_GT(t.calls, 64u);
    EXPECT_EQ(t.failures, 0u);
    // Every straggler was read: a blocking call afterwards gets its own reply, not an old one.
    std::string error;
    CMessage request = get()();
    int32_t code = -1;
    std::string value;
    EXPECT_TRUE(read_code_and_text(call(client.get(), request.get(), 2000, error).get(), code, value));
    EXPECT_EQ(dbus_connection_get_dispatch_status(client.get()), DBUS_DISPATCH_COMPLETE);
}

TEST_F(AnEchoService, ComparedWithItselfGivesARatioNearOne) {
    const CPair<CRoundTrips> pair = run_sequential_pair(client.get(), get(), get(), plan, 3);
    EXPECT_GT(pair.baseline.calls, 0u);
    EXPECT_GT(pair.measured.calls, 0u);
    EXPECT_GT(pair.ratio, 0.3);
    EXPECT_LT(pair.ratio, 3.0);
}
