#include "quorel/dbus/dbus_internal_handle.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "bus_test_support.h"
#include "quorel/testsupport/log_capture.h"
#include "quorel/testsupport/private_bus.h"
#include "quorel/testsupport/wait.h"

using Quorel::Iot::DBus::CDBusMessage;
using Quorel::Iot::DBus::CDBusMethodCall;
using Quorel::Iot::DBus::CDBusMethodReturn;
using Quorel::Iot::DBus::DBusCallback;
using namespace Quorel::Iot::Testing;

namespace {

constexpr const char kServerName[] = "iot.test.server";
constexpr const char kPeerName[] = "iot.test.peer";
constexpr const char kPeerPath[] = "/iot/test/peer";

// Records the completions of non-blocking calls.
struct CCompletions {
    struct Entry {
        uint32_t status;
        int type;
        std::string text;
        void* user_data;
    };
    std::mutex mutex;
    std::vector<Entry> entries;  // guarded by mutex

    void record(uint32_t status, CDBusMessage* reply, void* user_data) {
        std::string text;
        reply->get_string(text);
        std::lock_guard<std::mutex> lock(mutex);
        entries.push_back({status, reply->get_type(), text, user_data});
    }
    DBusCallback callback() { return DBusCallback(this, &CCompletions::record); }
    size_t size() {
        std::lock_guard<std::mutex> lock(mutex);
        return entries.size();
    }
};

class AHandle : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(bus.start());
        peer = std::make_unique<CFakeService>(bus.address(), kPeerName);
        server = std::make_unique<CRecordingServer>(bus.address(), kServerName);
        peer->on("echo", [](DBusMessage* call) {
            const CRecordedMessage request = record_message(call);
            return CFakeService::reply_string(call, request.args.empty() ? "" : request.args[0]);
        });
        peer->on("silent", [](DBusMessage*) -> DBusMessage* { return nullptr; });
        peer->on("fail", [](DBusMessage* call) { return CFakeService::reply_error(call, "iot.test.Error", "no"); });
        ASSERT_TRUE(peer->start());
        probe = std::make_unique<CBusProbe>(bus.address());
        ASSERT_TRUE(probe->connected());
        ASSERT_EQ(server->connect_to_bus(), 0);
    }

    static CDBusMethodCall peer_call(const std::string& member, const std::string& argument = "") {
        CDBusMethodCall call(kPeerName, kPeerPath, kPeerName, member);
        if (!argument.empty()) call.set_string(argument);
        return call;
    }

    CPrivateBus bus;
    CLogCapture log;
    CCompletions completions;
    std::unique_ptr<CFakeService> peer;
    std::unique_ptr<CBusProbe> probe;
    std::unique_ptr<CRecordingServer> server;
};

}  // namespace

TEST_F(AHandle, RefusesToConnectTwice) {
    EXPECT_TRUE(log.contains("connect to bus success, address:" + bus.address() + ", name:iot.test.server."));
    EXPECT_EQ(server->connect_to_bus(), -1);
    EXPECT_EQ(log.count("dbus already connected."), 1u);
    EXPECT_TRUE(server->is_connected());
}

TEST_F(AHandle, LeavesNothingOpenWhenItsNameBelongsToAnother) {
    const size_t connections = probe->connection_count();
    CRecordingServer rival(bus.address(), kPeerName);
    EXPECT_EQ(rival.connect_to_bus(), -4);
    EXPECT_TRUE(log.contains("dbus request name fail, name:iot.test.peer."));
    EXPECT_FALSE(rival.is_connected());
    EXPECT_TRUE(wait_until([&] { return probe->connection_count() == connections; }));
    EXPECT_EQ(probe->name_owner(kPeerName), peer->unique_name());

    CRecordingServer other(bus.address(), "iot.test.other");
    EXPECT_EQ(other.connect_to_bus(), 0);
}

TEST_F(AHandle, ReportsFailuresToOpenAndToAddAMatchRuleWithTheirCodes) {
    CRecordingServer lost("unix:path=/nonexistent/bus_socket", "iot.test.lost");
    EXPECT_EQ(lost.connect_to_bus(), -2);
    EXPECT_TRUE(log.contains("dbus connection open fail, address:unix:path=/nonexistent/bus_socket."));
    EXPECT_EQ(log.count_containing("dbus error:"), 1u);
    CRecordingServer picky(bus.address(), "iot.test.picky", {"type='signal'", "type='nonsense'"});
    EXPECT_EQ(picky.connect_to_bus(), -5);
    EXPECT_TRUE(log.contains("dbus add match fail, rule:type='nonsense'."));
    EXPECT_EQ(probe->name_owner("iot.test.picky"), "");
}

TEST_F(AHandle, GivesUpABlockingCallAfterItsTimeout) {
    CDBusMethodCall request = peer_call("silent");
    CDBusMethodReturn reply(nullptr);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(server->block_call(request, reply, 120), -3);
    const long long elapsed = elapsed_ms(begin);
    EXPECT_GE(elapsed, 115);
    EXPECT_LE(elapsed, 1000);
    EXPECT_EQ(log.count_containing("dbus wait response timeout, close:0, timeout:1, client_serial:"), 1u);
    EXPECT_TRUE(reply.empty());
}

TEST_F(AHandle, HandsTheAnswerOrTheErrorReplyToTheBlockingCaller) {
    CDBusMethodCall request = peer_call("echo", "hello");
    CDBusMethodReturn reply(nullptr);
    std::string text;
    EXPECT_EQ(server->block_call(request, reply, 2000), 0);
    EXPECT_TRUE(reply.get_string(text));
    EXPECT_EQ(text, "hello");
    CDBusMethodCall failing = peer_call("fail");
    EXPECT_EQ(server->block_call(failing, reply, 2000), -5);
    EXPECT_EQ(reply.get_error_name(), "iot.test.Error");
    EXPECT_TRUE(log.contains("handle_error_method, name:iot.test.Error."));
}

TEST_F(AHandle, AbortsAWaitingBlockingCallOnDisconnect) {
    auto waiter = std::async(std::launch::async, [this] {
        CDBusMethodCall request = peer_call("silent");
        CDBusMethodReturn reply(nullptr);
        return server->block_call(request, reply, 0);
    });
    ASSERT_TRUE(peer->wait_for_count("silent", 1));
    server->disconnect();
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(waiter.get(), -4);
    EXPECT_EQ(log.count_containing("dbus wait response timeout, close:1, timeout:0, client_serial:"), 1u);
}

TEST_F(AHandle, CompletesEachPendingNonBlockingCallOnceOnDisconnect) {
    int tokens[3] = {0, 1, 2};
    for (int& token : tokens) {
        CDBusMethodCall request = peer_call("silent");
        ASSERT_EQ(server->unblock_call(request, &token, completions.callback()), 0);
    }
    ASSERT_TRUE(peer->wait_for_count("silent", 3));
    server->disconnect();
    ASSERT_EQ(completions.entries.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(completions.entries[i].status, 1u);
        EXPECT_EQ(completions.entries[i].type, DBUS_MESSAGE_TYPE_METHOD_RETURN);
        EXPECT_EQ(completions.entries[i].user_data, &tokens[i]);
    }
    server->disconnect();
    EXPECT_EQ(completions.entries.size(), 3u);
}

TEST_F(AHandle, LetsACompletionIssueTheNextCall) {
    struct CChain {
        Quorel::Iot::DBus::CDBusServer* server;
        std::atomic<int> done{0};
        void first(uint32_t, CDBusMessage*, void*) {
            CDBusMethodCall next(kPeerName, kPeerPath, kPeerName, "echo");
            next.set_string("second");
            server->unblock_call(next, nullptr, DBusCallback(this, &CChain::second));
        }
        void second(uint32_t status, CDBusMessage* reply, void*) {
            std::string text;
            if (status == 0 && reply->get_string(text) && text == "second") done = 1;
        }
    } chain;
    chain.server = server.get();
    CDBusMethodCall request = peer_call("echo", "first");
    ASSERT_EQ(server->unblock_call(request, nullptr, DBusCallback(&chain, &CChain::first)), 0);
    EXPECT_TRUE(wait_until([&] { return chain.done.load() == 1; }));
}

TEST_F(AHandle, DropsAReplyNobodyWaitsFor) {
    CDBusMethodCall request = peer_call("echo", "x");
    ASSERT_EQ(server->unblock_call(request, nullptr, completions.callback()), 0);
    ASSERT_TRUE(wait_until([&] { return completions.size() == 1; }));

    DBusMessage* stray = dbus_message_new(DBUS_MESSAGE_TYPE_METHOD_RETURN);
    dbus_message_set_destination(stray, kServerName);
    dbus_message_set_reply_serial(stray, 4242);
    ASSERT_TRUE(peer->send(stray));
    dbus_message_unref(stray);
    EXPECT_TRUE(log.wait_for("handle_return_method, no match, reply serial:4242."));
    EXPECT_EQ(completions.size(), 1u);
    EXPECT_TRUE(server->is_connected());
}

TEST_F(AHandle, RefusesCallsAndRepliesOnceDisconnected) {
    server->disconnect();
    EXPECT_FALSE(server->is_connected());
    CDBusMethodCall request = peer_call("echo", "x");
    CDBusMethodReturn reply(nullptr);
    EXPECT_EQ(server->block_call(request, reply, 100), -1);
    EXPECT_TRUE(log.contains("block_call, dbus disconnected."));
    EXPECT_EQ(server->unblock_call(request, nullptr, completions.callback()), -1);
    EXPECT_TRUE(log.contains("dbus already connected."));
    CDBusMethodReturn answer;
    EXPECT_FALSE(server->send_dbus_reply(answer));
    EXPECT_TRUE(log.contains("dbus already disconnected."));
    EXPECT_EQ(probe->name_owner(kServerName), "");
    // A disconnected handle may connect again.
    EXPECT_EQ(server->connect_to_bus(), 0);
}

TEST_F(AHandle, FeedsTheWatchdogWithItsNameIdAndTwiceTheInterval) {
    CFakeService watchdog(bus.address(), "iot.gateway.watchdog");
    ASSERT_TRUE(watchdog.start());
    const auto begin = std::chrono::steady_clock::now();
    server->set_watchdog("/iot/dmp/configmanager", "config-manager", 1);
    ASSERT_TRUE(watchdog.wait_for_count("feedDog", 1));
    // Whole seconds since the last feed must exceed the interval: about 2 s for interval 1.
    EXPECT_GE(elapsed_ms(begin), 1900);
    const CRecordedMessage feed = watchdog.received("feedDog")[0];
    EXPECT_EQ(feed.type, DBUS_MESSAGE_TYPE_SIGNAL);
    EXPECT_EQ(feed.path, "/iot/dmp/configmanager");
    EXPECT_EQ(feed.interface, "iot.gateway.watchdog");
    EXPECT_EQ(feed.destination, "iot.gateway.watchdog");
    EXPECT_EQ(feed.args, (std::vector<std::string>{kServerName, "config-manager", "2"}));
}

// A blocking call made while the reader sits idle in its wait goes out at once, and its answer is
// taken when it arrives: the fastest of a few round trips stays well below the reader's 100 ms
// wake-up and the 50 ms polling step, either of which would hold every call back.
TEST_F(AHandle, SendsABlockingCallAndTakesItsAnswerWithoutWaitingForTheReadersWakeUp) {
    long long fastest = 1000;
    for (int i = 0; i < 5; ++i) {
        CDBusMethodCall request = peer_call("echo", "ping");
        CDBusMethodReturn reply(nullptr);
        const auto begin = std::chrono::steady_clock::now();
        ASSERT_EQ(server->block_call(request, reply, 2000), 0);
        fastest = std::min(fastest, elapsed_ms(begin));
    }
    EXPECT_LT(fastest, 30);
}

TEST_F(AHandle, MatchesConcurrentRepliesToTheirCallers) {
    constexpr int kThreads = 4;
    constexpr int kCalls = 200;
    std::atomic<int> mismatches{0};
    std::atomic<int> finished{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCalls; ++i) {
                const std::string text = std::to_string(t) + ":" + std::to_string(i);
                CDBusMethodCall request = peer_call("echo", text);
                CDBusMethodReturn reply(nullptr);
                std::string answer;
                if (server->block_call(request, reply, 0) != 0 || !reply.get_string(answer) || answer != text) {
                    ++mismatches;
                }
            }
            ++finished;
        });
    }
    // Non-blocking calls from this thread meanwhile, completed on the reader thread. The bus daemon
    // answers an error beyond 128 pending replies per connection, so at most 64 are left open.
    int tokens[kCalls];
    for (int i = 0; i < kCalls; ++i) {
        EXPECT_TRUE(wait_until([&] { return static_cast<int>(completions.size()) > i - 64; }));
        tokens[i] = i;
        CDBusMethodCall request = peer_call("echo", "async:" + std::to_string(i));
        EXPECT_EQ(server->unblock_call(request, &tokens[i], completions.callback()), 0);
    }
    // Waits without a deadline of their own: if anything hangs, disconnect releases them (-4).
    if (!wait_until([&] { return finished.load() == kThreads; }, std::chrono::seconds(60))) server->disconnect();
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(mismatches.load(), 0);
    ASSERT_TRUE(wait_until([&] { return completions.size() == kCalls; }));
    std::lock_guard<std::mutex> lock(completions.mutex);
    for (const auto& entry : completions.entries) {
        const int index = static_cast<int*>(entry.user_data) - tokens;
        EXPECT_EQ(entry.status, 0u);
        EXPECT_EQ(entry.text, "async:" + std::to_string(index));
    }
}
