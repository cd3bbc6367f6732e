// Watching for a bus name, and the observer responder's notification count.
#include "bench_bus.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>

#include "quorel/testsupport/private_bus.h"
#include "quorel/testsupport/wait.h"
#include "responder_thread.h"

using namespace Quorel::Iot::Bench;
using Quorel::Iot::Testing::CPrivateBus;
using Quorel::Iot::Testing::elapsed_ms;
using Quorel::Iot::Testing::wait_until;

namespace {

class ABus : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(bus.start()); }
    CPrivateBus bus;
};

}  // namespace

TEST_F(ABus, LetsANameWatchSeeTheNameTakenAfterItStarted) {
    std::string error;
    CNameWatch watch;
    ASSERT_TRUE(watch.start(bus.address(), "bench.late", error)) << error;
    const auto before = std::chrono::steady_clock::now();
    CConnection owner = open_connection(bus.address(), "bench.late", error);
    ASSERT_TRUE(owner) << error;
    std::chrono::steady_clock::time_point owned_at;
    ASSERT_TRUE(watch.wait_owned(std::chrono::seconds(5), owned_at));
    EXPECT_GE(owned_at, before);
}

TEST_F(ABus, LetsANameWatchGiveUpAtItsTimeout) {
    std::string error;
    CNameWatch watch;
    ASSERT_TRUE(watch.start(bus.address(), "bench.never", error)) << error;
    const auto started = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point owned_at;
    EXPECT_FALSE(watch.wait_owned(std::chrono::milliseconds(200), owned_at));
    EXPECT_GE(elapsed_ms(started), 190);
    EXPECT_LE(elapsed_ms(started), 1000);
}

TEST_F(ABus, RefusesASecondOwnerOfAName) {
    std::string error;
    CConnection first = open_connection(bus.address(), "bench.once", error);
    ASSERT_TRUE(first) << error;
    EXPECT_FALSE(open_connection(bus.address(), "bench.once", error));
    EXPECT_NE(error.find("bench.once"), std::string::npos);
}

TEST_F(ABus, CarriesNotificationsToAnObserverThatCountsThem) {
    auto observer = std::make_unique<CResponderThread>(kObserverMode, bus, "bench.observer.test");
    std::string error;
    CConnection client = open_connection(bus.address(), "", error);
    ASSERT_TRUE(client) << error;
    const CTarget target = subscriber_target("bench.observer.test");
    ASSERT_TRUE(wait_until([&] {
        CErrorGuard e;
        return dbus_bus_name_has_owner(client.get(), target.destination.c_str(), e.get()) != FALSE;
    }));
    for (int i = 0; i < 5; ++i) {
        CMessage notify = make_call(target, "notify_config", {"k", "v"});
        int32_t code = -1;
        ASSERT_TRUE(read_code(call(client.get(), notify.get(), 2000, error).get(), code)) << error;
        EXPECT_EQ(code, 0);
    }
    CMessage count = make_call(target, "notify_count", {});
    CMessage reply = call(client.get(), count.get(), 2000, error);
    dbus_int32_t code = -1;
    dbus_int32_t received = -1;
    ASSERT_TRUE(dbus_message_get_args(reply.get(), nullptr, DBUS_TYPE_INT32, &code, DBUS_TYPE_INT32, &received,
                                      DBUS_TYPE_INVALID));
    EXPECT_EQ(received, 5);
}
