#include "quorel/dbus/dbus_server.h"

#include <gtest/gtest.h>

#include <future>

#include "bus_test_support.h"
#include "quorel/testsupport/log_capture.h"
#include "quorel/testsupport/private_bus.h"
#include "quorel/testsupport/wait.h"

using Quorel::Iot::DBus::CDBusMethodCall;
using Quorel::Iot::DBus::CDBusMethodReturn;
using Quorel::Iot::DBus::CDBusServer;
using Quorel::Iot::DBus::CDBusSignal;
using namespace Quorel::Iot::Testing;

namespace {

constexpr const char kName[] = "iot.test.service";
constexpr const char kPath[] = "/iot/test/service";

class AService : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.start());
        probe = std::make_unique<CBusProbe>(bus.address());
        ASSERT_TRUE(probe->connected());
        service = std::make_unique<CRecordingServer>(bus.address(), kName);
        ASSERT_EQ(service->connect_to_bus(), 0);
    }

    DBusMessage* call_to_service(const std::string& member, const std::string& argument) {
        return CCallBuilder(kName, kPath, kName, member).str(argument).take();
    }

    CPrivateBus bus;
    CLogCapture log;
    std::unique_ptr<CBusProbe> probe;
    std::unique_ptr<CRecordingServer> service;
};

// A service whose destructor leaves everything to the base class.
class CBareServer : public CDBusServer {
public:
    CBareServer(const std::string& address, const std::string& name) : CDBusServer(address, name, {}) {}
    void message_request(CDBusMethodCall&, CDBusMethodReturn&, bool&) override {}
    void message_signal(CDBusSignal&) override { ++signals; }
    void message_error(int32_t) override {}
    std::atomic<int> signals{0};
};

}  // namespace

TEST_F(AService, AnswersARequestFromItsReaderThread) {
    service->respond_with([](CDBusMethodCall& request, CDBusMethodReturn& reply, bool&) {
        std::string text;
        request.get_string(text);
        reply.set_int32(0);
        reply.set_string("got " + text);
    });
    const CRecordedMessage reply = probe->call(call_to_service("get_config", "gw_key"));
    EXPECT_EQ(reply.type, DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_EQ(reply.args, (std::vector<std::string>{"0", "got gw_key"}));
    EXPECT_EQ(service->requests(), std::vector<std::string>{"get_config"});
}

TEST_F(AService, AnswersLaterWithAReplyItKeptAReferenceTo) {
    std::promise<CDBusMethodReturn> kept;
    service->respond_with([&kept](CDBusMethodCall&, CDBusMethodReturn& reply, bool& need_reply) {
        need_reply = false;
        kept.set_value(CDBusMethodReturn(reply));
    });
    auto answer = std::async(std::launch::async, [this] { return probe->call(call_to_service("slow", "x")); });
    CDBusMethodReturn reply = kept.get_future().get();
    // Nothing has gone out yet: the caller is still waiting.
    EXPECT_EQ(answer.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    reply.set_int32(100001);
    EXPECT_TRUE(service->send_dbus_reply(reply));
    ASSERT_EQ(answer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(answer.get().args, std::vector<std::string>{"100001"});
}

TEST_F(AService, HearsOfTheLostBusExactlyOnce) {
    bus.stop();
    ASSERT_TRUE(log.wait_for("threadProc, dbus end loop read message."));
    EXPECT_EQ(service->errors(), std::vector<int32_t>{-1});
    EXPECT_EQ(log.count_containing("threadProc, dbus_connection_read_write bret:0."), 1u);
    EXPECT_FALSE(service->is_connected());
    // With the connection gone, disconnect has nothing left to do.
    service->disconnect();
    EXPECT_EQ(service->errors(), std::vector<int32_t>{-1});
}

TEST_F(AService, ReleasesItsNameAndStopsItsReaderWhenDeleted) {
    auto bare = std::make_unique<CBareServer>(bus.address(), "iot.test.bare");
    ASSERT_EQ(bare->connect_to_bus(), 0);
    ASSERT_FALSE(probe->name_owner("iot.test.bare").empty());
    // The bus greets the connection with NameAcquired twice, for its unique name and for the one it
    // owns; both must have been dispatched before the object goes, or the reader would call into
    // a half-destroyed object (this service leaves disconnecting to the base class).
    ASSERT_TRUE(wait_until([&] { return bare->signals.load() >= 2; }));
    log.clear();
    bare.reset();
    EXPECT_EQ(log.count("threadProc, dbus end loop read message."), 1u);
    EXPECT_EQ(probe->name_owner("iot.test.bare"), "");
}

TEST(ABusName, IsValidatedByTheBusRules) {
    CLogCapture log;
    EXPECT_TRUE(CDBusServer::validate_bus_name("iot.dmp.configmanager"));
    EXPECT_TRUE(CDBusServer::validate_bus_name(":1.42"));
    EXPECT_TRUE(log.lines().empty());
    EXPECT_FALSE(CDBusServer::validate_bus_name(""));
    EXPECT_FALSE(CDBusServer::validate_bus_name("iot..dmp"));
    EXPECT_FALSE(CDBusServer::validate_bus_name("iot." + std::string(252, 'a')));
    EXPECT_TRUE(CDBusServer::validate_bus_name("iot." + std::string(251, 'a')));
    EXPECT_EQ(log.count_containing("dbus error:"), 3u);
}
