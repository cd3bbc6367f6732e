// Counting the keychain writes that cross the bus.
#include "bench_monitor.h"

#include <gtest/gtest.h>

#include <memory>

#include "bench_bus.h"
#include "quorel/testsupport/private_bus.h"
#include "quorel/testsupport/wait.h"
#include "responder_thread.h"

using namespace Quorel::Iot::Bench;
using Quorel::Iot::Testing::CPrivateBus;
using Quorel::Iot::Testing::wait_until;

namespace {

const CTarget kKeychain = {"iot.gateway.security.keychain", "/iot/gateway/security/keychain",
                           "iot.gateway.security.keychain.sst"};

CMessage keychain_call(const std::string& member, int32_t length) {
    CMessage message = make_call(kKeychain, member, {});
    append_int32(message.get(), 7);  // segment id
    append_int32(message.get(), 3);  // item type
    append_int32(message.get(), length);
    return message;
}

}  // namespace

TEST(AKeychainWriteCounter, CountsAddKeyCallsAndTheirLengthsOnly) {
    CPrivateBus bus;
    ASSERT_TRUE(bus.start());
    // An echo plays the keychain: it answers every call with an empty return.
    auto keychain = std::make_unique<CResponderThread>(kEchoMode, bus, kKeychain.destination);
    CKeychainWriteCounter counter;
    std::string error;
    ASSERT_TRUE(counter.start(bus.address(), error)) << error;
    CConnection client = open_connection(bus.address(), "", error);
    ASSERT_TRUE(client) << error;
    ASSERT_TRUE(wait_until([&] {
        CErrorGuard e;
        return dbus_bus_name_has_owner(client.get(), kKeychain.destination.c_str(), e.get()) != FALSE;
    }));

    for (int32_t length : {100, 200, 300}) {
        CMessage write = keychain_call("kcAddKey", length);
        ASSERT_TRUE(call(client.get(), write.get(), 2000, error)) << error;
    }
    CMessage read = keychain_call("kcGetKey", 4096);
    ASSERT_TRUE(call(client.get(), read.get(), 2000, error)) << error;

    ASSERT_TRUE(wait_until([&] { return counter.writes() >= 3; }));
    EXPECT_TRUE(counter.wait_quiet(std::chrono::milliseconds(100), std::chrono::seconds(2)));
    EXPECT_EQ(counter.writes(), 3u);
    EXPECT_EQ(counter.bytes(), 600u);
}
