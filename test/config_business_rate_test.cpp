// Round-trip rate of "get_config" against the configuration service, compared with a do-nothing
// echo service on the same private bus. Prints both rates; fails only on a gross slowdown.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "quorel/testsupport/service_fixture.h"

using Quorel::Iot::Testing::CArg;
using Quorel::Iot::Testing::CCallBuilder;
using Quorel::Iot::Testing::CFakeService;
using Quorel::Iot::Testing::CServiceHarness;

namespace {

constexpr int kRoundTrips = 2000;
constexpr int kSlice = 50;

TEST(TheConfigService, AnswersGetConfigAtLeastAThirdAsFastAsAnEchoService) {
    CServiceHarness h;
    ASSERT_TRUE(h.start());
    ASSERT_EQ(h.invoke("set_config", {CArg::s("k"), CArg::s("value")}).args, std::vector<std::string>{"0"});
    CFakeService echo(h.address(), "iot.echo.svc");
    echo.on("get_config", [](DBusMessage* call) {
        DBusMessage* reply = CFakeService::reply_int(call, 0);
        const char* value = "value";
        dbus_message_append_args(reply, DBUS_TYPE_STRING, &value, DBUS_TYPE_INVALID);
        return reply;
    });
    ASSERT_TRUE(echo.start());

    // Timed in alternating slices so that both see the same load from the rest of the machine.
    auto timed_slice = [&](const char* name, const char* path, double& seconds) {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < kSlice; ++i) {
            CCallBuilder call(name, path, name, "get_config");
            call.str("k");
            const auto reply = h.client().call(call);
            if (reply.args.size() != 2 || reply.args[1] != "value") return false;
        }
        seconds += std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        return true;
    };
    double echo_s = 0;
    double service_s = 0;
    for (int done = 0; done < kRoundTrips; done += kSlice) {
        ASSERT_TRUE(timed_slice("iot.echo.svc", "/iot/echo/svc", echo_s));
        ASSERT_TRUE(timed_slice(CServiceHarness::kName, CServiceHarness::kPath, service_s));
    }
    const double service_rate = kRoundTrips / service_s;
    const double echo_rate = kRoundTrips / echo_s;
    std::printf("get_config x%d: service %.0f/s, echo %.0f/s, ratio %.2f\n", kRoundTrips, service_rate, echo_rate,
                service_rate / echo_rate);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // Sanitizers slow the service's own code, not the daemon's: the ratio only means something plain.
    EXPECT_GT(service_rate / echo_rate, 0.3);
#endif
}

}  // namespace
