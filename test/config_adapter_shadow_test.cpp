#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "adapter_harness.h"
#include "quorel/log/log.h"
#include "quorel/testsupport/fake_subscriber.h"
#include "quorel/testsupport/log_capture.h"

using namespace Quorel::Iot::Testing;

namespace {

std::string control(const std::string& desired) {
    return R"({"method":"control","payload":{"state":{"desired":)" + desired + "}}}";
}

std::string reply(const std::string& reported) {
    return R"({"method":"reply","payload":{"state":{"reported":)" + reported + "}}}";
}

class AShadowDocument : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(harness.start()); }

    CLogCapture log;
    CAdapterHarness harness;
};

TEST_F(AShadowDocument, AppliesADesiredNumberAsItsDecimalText) {
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_vexa_switch":1})")));
    EXPECT_TRUE(harness.wait_value("gw_vexa_switch", "1"));
}

TEST_F(AShadowDocument, AppliesADesiredTrueAsOne) {
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_orlo_switch":true})")));
    EXPECT_TRUE(harness.wait_value("gw_orlo_switch", "1"));
}

TEST_F(AShadowDocument, SendsANumberAboveTheSignedRangeAsItsNegativeText) {
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_vexa_switch":3000000000})")));
    EXPECT_TRUE(harness.wait_value("gw_vexa_switch", "-1294967296"));
}

TEST_F(AShadowDocument, TakesAKeyFromDesiredWhenReportedHasItToo) {
    ASSERT_TRUE(harness.send_shadow(R"({"method":"control","payload":{"state":{"desired":{"gw_orlo_level":"warn"},)"
                                    R"("reported":{"gw_orlo_level":"debug","gw_orlo_logStore":"store-1"}}}})"));
    EXPECT_TRUE(harness.wait_value("gw_orlo_level", "warn"));
    EXPECT_EQ("0:store-1", harness.value_of("gw_orlo_logStore"));
    EXPECT_EQ(0u, log.count("set config gw_orlo_level:debug "));
}

TEST_F(AShadowDocument, NeverAppliesKeysOutsideTheSynchronisedSeven) {
    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_other":"x","gw_vexa_accessKey":"ak"})")));
    ASSERT_TRUE(harness.wait_value("gw_vexa_accessKey", "ak"));
    EXPECT_EQ("100100:", harness.value_of("gw_other"));
}

TEST_F(AShadowDocument, FromAReplyIsAppliedOnceAndSkippedWhenRepeated) {
    ASSERT_TRUE(harness.send_shadow(reply(R"({"gw_orlo_project":"proj-a","gw_vexa_secretKey":-3})")));
    ASSERT_TRUE(harness.wait_value("gw_orlo_project", "proj-a"));
    ASSERT_TRUE(harness.send_shadow(reply(R"({"gw_orlo_project":"proj-a","gw_vexa_secretKey":-3})")));
    EXPECT_TRUE(log.wait_for("local have set config gw_orlo_project:proj-a "));
    EXPECT_EQ(1u, log.count("set config gw_orlo_project:proj-a "));
    EXPECT_EQ("100100:", harness.value_of("gw_vexa_secretKey"));
}

TEST_F(AShadowDocument, WithoutMethodIsReportedAndNotApplied) {
    ASSERT_TRUE(harness.send_shadow(R"({"payload":{"state":{"desired":{"gw_vexa_switch":1}}}})"));
    EXPECT_TRUE(log.wait_for("shadow not has 'method' member!"));
    EXPECT_EQ("100100:", harness.value_of("gw_vexa_switch"));
}

TEST_F(AShadowDocument, ThatIsNotJsonIsDropped) {
    ASSERT_TRUE(harness.send_shadow("{not json"));
    EXPECT_TRUE(log.wait_for("parse result error."));
}

// Records every log line, and holds the first thread that logs a line beginning with a chosen text
// until the test releases it, so that the test decides how long that thread's work stays in
// flight. It is the process's only log sink while it lives: declare it before what it watches.
class CLogHold {
public:
    explicit CLogHold(std::string prefix) : m_prefix(std::move(prefix)) { log_set_sink(&CLogHold::sink, this); }
    ~CLogHold() {
        release();
        log_set_sink(nullptr, nullptr);
    }
    CLogHold(const CLogHold&) = delete;
    CLogHold& operator=(const CLogHold&) = delete;

    bool wait_held(std::chrono::milliseconds timeout) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [this] { return m_holding; });
    }
    void release() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }
    size_t count_containing(const std::string& fragment) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        size_t n = 0;
        for (const std::string& line : m_lines) n += line.find(fragment) != std::string::npos ? 1 : 0;
        return n;
    }
    bool empty() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines.empty();
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    static void sink(int, const char*, const char*, int, const char* message, void* context) {
        auto* self = static_cast<CLogHold*>(context);
        const std::string text = message != nullptr ? message : "";
        std::unique_lock<std::mutex> lock(self->m_mutex);
        self->m_lines.push_back(text);
        if (self->m_holding || self->m_released || text.rfind(self->m_prefix, 0) != 0) return;
        self->m_holding = true;
        self->m_changed.notify_all();
        self->m_changed.wait(lock, [self] { return self->m_released; });
    }

    const std::string m_prefix;
    mutable std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_lines;  // guarded by m_mutex
    bool m_holding = false;            // guarded by m_mutex; stays true once a thread was held
    bool m_released = false;           // guarded by m_mutex
};

// The adapter's threads outlive it: deleting it while its shadow thread is inside a set waits for
// that set only, and the thread then makes no further call and logs nothing.
//
// The first set goes to a key owner that never answers and ends at the adapter's 500 ms limit.
// The shadow thread logs that time-out while the set is still in flight, and the test holds it
// right there until the deletion has provably begun, so the outcome does not depend on how fast
// the machine gets from the owner's question to the deletion.
TEST(ADeletedAdapter, WaitsOnlyForTheSetInFlightAndSilencesItsThreads) {
    CLogHold log("dbus wait response timeout");
    CAdapterHarness harness;
    ASSERT_TRUE(harness.start());
    CFakeSubscriber owner(harness.service().address(), "iot.test.owner");
    owner.answer_nothing();
    ASSERT_TRUE(owner.start());
    auto subscribed = harness.service().invoke("subscribe_config",
                                               {CArg::s("iot.test.owner"), CArg::s("gw_vexa_accessKey"), CArg::i(0)});
    ASSERT_EQ(std::vector<std::string>{"0"}, subscribed.args);

    ASSERT_TRUE(harness.send_shadow(control(R"({"gw_vexa_accessKey":"ak","gw_vexa_secretKey":"sk"})")));
    ASSERT_TRUE(owner.wait_for_notifications(1));
    ASSERT_TRUE(log.wait_held(std::chrono::seconds(5)));

    std::atomic<bool> deleted{false};
    std::thread deleter([&] {
        harness.delete_adapter();
        deleted = true;
    });
    // Once the deletion has shut the adapter's threads out, a report the adapter publishes from its
    // bus reader thread (which runs until the deletion ends) fails and says so.
    const auto closed = [&] {
        CCallBuilder probe("iot.dmp.config.adapter", "/iot/dmp/config/adapter", "iot.dmp.config.adapter",
                           "notify_config");
        probe.str("gw_vexa_serialNumber").str("probe");
        harness.service().client().call(probe, 1000);
        return log.count_containing("publish, unblock call from handle_serial_num_update error") > 0;
    };
    const bool shut_out = wait_until(closed, std::chrono::seconds(10));
    EXPECT_TRUE(shut_out);
    EXPECT_FALSE(deleted) << "the deletion did not wait for the set in flight";

    const auto released = std::chrono::steady_clock::now();
    log.release();
    deleter.join();
    // The rest of the document is skipped at once; waiting for the shadow thread's 3 s pause or
    // the subscription thread's 15 s sleep would take far longer.
    EXPECT_LE(elapsed_ms(released), 2500);

    // The secret key came after the refused access key: its call found the adapter gone.
    EXPECT_EQ(1u, owner.notifications().size());
    EXPECT_EQ("100100:", harness.value_of("gw_vexa_secretKey"));
    // Its shadow thread wakes within 3 s; it must end without a word.
    log.clear();
    EXPECT_FALSE(wait_until([&] { return !log.empty(); }, std::chrono::milliseconds(3500)));
}

}  // namespace
