#include "quorel/platform/timer.h"

#include <dirent.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "quorel/platform/thread.h"
#include "quorel/testsupport/wait.h"

using Quorel::Iot::Platform::CThread;
using Quorel::Iot::Platform::CTimer;
using Quorel::Iot::Platform::tick_ms;
using Quorel::Iot::Platform::TimerCallback;
using Quorel::Iot::Testing::wait_until;
using std::chrono::milliseconds;

namespace {

// Records each call (argument and tick); a callback may be held open or made slow to keep its
// worker busy.
class CProbe {
public:
    TimerCallback callback() { return TimerCallback(this, &CProbe::on_fire); }

    void on_fire(uint64_t argument) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_fires.push_back({argument, tick_ms()});
        }
        m_entered.fetch_add(1);
        if (m_hold.load()) wait_until([this] { return !m_hold.load(); }, std::chrono::seconds(10));
        if (m_slow_ms.load() != 0) CThread::sleep_ms(m_slow_ms.exchange(0));
        if (m_timer_to_make_one_shot != nullptr) m_timer_to_make_one_shot->set_period(0);
        uint64_t none = 0;
        m_first_return.compare_exchange_strong(none, tick_ms());
        m_finished.fetch_add(1);
    }

    struct Fire {
        uint64_t argument;
        uint64_t tick;
    };
    std::vector<Fire> fires() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_fires;
    }

    std::atomic<int> m_entered{0};
    std::atomic<int> m_finished{0};
    std::atomic<bool> m_hold{false};
    std::atomic<uint32_t> m_slow_ms{0};
    std::atomic<uint64_t> m_first_return{0};
    CTimer* m_timer_to_make_one_shot = nullptr;

private:
    std::mutex m_mutex;
    std::vector<Fire> m_fires;
};

int threads_named(const std::string& name) {
    int count = 0;
    DIR* dir = opendir("/proc/self/task");
    while (dirent* entry = readdir(dir)) {
        std::ifstream comm(std::string("/proc/self/task/") + entry->d_name + "/comm");
        std::string line;
        if (std::getline(comm, line) && line == name) ++count;
    }
    closedir(dir);
    return count;
}

bool stays_false_for(std::atomic<int>& counter, int value, milliseconds time) {
    return !wait_until([&] { return counter.load() > value; }, time);
}

}  // namespace

TEST(ATimer, BringsUpTheManagerAndTwoWorkersOnTheFirstStart) {
    CProbe probe;
    CTimer timer("first");
    EXPECT_EQ(threads_named("timer_manager"), 0);
    ASSERT_TRUE(timer.start(0, 10000, 0, probe.callback()));
    // The threads name themselves once they run.
    EXPECT_TRUE(wait_until([] { return threads_named("timer_manager") == 1 && threads_named("timer_task") == 2; }));
}

TEST(ATimer, FiresAOneShotOnceWithItsArgumentAfterTheDelay) {
    CProbe probe;
    CTimer timer("one-shot");
    const uint64_t started = tick_ms();
    ASSERT_TRUE(timer.start(0, 100, 42, probe.callback()));
    EXPECT_TRUE(timer.is_active());
    ASSERT_TRUE(wait_until([&] { return !timer.is_active(); }));
    ASSERT_EQ(probe.fires().size(), 1u);
    EXPECT_EQ(probe.fires()[0].argument, 42u);
    EXPECT_GE(probe.fires()[0].tick, started + 100);
    EXPECT_LE(probe.fires()[0].tick, started + 1000);
    EXPECT_TRUE(stays_false_for(probe.m_entered, 1, milliseconds(100)));
}

TEST(ATimer, FiresTimersWithTheSameExpiryInTheOrderTheyWereStarted) {
    // One worker is held so that the timers are dispatched one after another.
    CProbe gate;
    gate.m_hold = true;
    CProbe probe;
    CTimer holder("holder");
    ASSERT_TRUE(holder.start(0, 0, 0, gate.callback()));
    ASSERT_TRUE(wait_until([&] { return gate.m_entered.load() == 1; }));
    std::vector<std::unique_ptr<CTimer>> timers;
    for (int i = 0; i < 4; ++i) timers.push_back(std::make_unique<CTimer>("same"));
    // Start all four within one tick, so their expiries are equal.
    const uint64_t edge = tick_ms();
    ASSERT_TRUE(wait_until([&] { return tick_ms() != edge; }));
    const uint64_t tick = tick_ms();
    for (uint64_t i = 0; i < timers.size(); ++i) EXPECT_TRUE(timers[i]->start(0, 30, i, probe.callback()));
    ASSERT_EQ(tick_ms(), tick);
    ASSERT_TRUE(wait_until([&] { return probe.m_finished.load() == 4; }));
    const auto fires = probe.fires();
    for (uint64_t i = 0; i < fires.size(); ++i) EXPECT_EQ(fires[i].argument, i);
    gate.m_hold = false;
}

TEST(ATimer, SkipsThePeriodsMissedByASlowCallbackAndKeepsItsGrid) {
    CProbe probe;
    probe.m_slow_ms = 350;
    CTimer timer("periodic");
    const uint64_t before = tick_ms();
    ASSERT_TRUE(timer.start(100, 50, 0, probe.callback()));
    // The first expiry lies between these two.
    const uint64_t first_low = before + 50;
    const uint64_t first_high = tick_ms() + 50;
    ASSERT_TRUE(wait_until([&] { return probe.m_entered.load() >= 4; }));
    timer.stop(1);
    const auto fires = probe.fires();
    EXPECT_GE(fires[0].tick, first_low);
    // Due again at once after the slow call, before the next grid point...
    EXPECT_GE(fires[1].tick, probe.m_first_return.load());
    EXPECT_LT(fires[1].tick, first_high + 400);
    // ...then back on the grid, with the points at 200 and 300 ms skipped.
    EXPECT_GE(fires[2].tick, first_low + 400);
    EXPECT_LT(fires[2].tick, first_high + 500);
    EXPECT_GE(fires[3].tick, first_low + 500);
    EXPECT_LT(fires[3].tick, first_high + 600);
}

TEST(ATimer, DelaysADueTimerWhileBothWorkersAreBusyAndFiresItLater) {
    CProbe gate;
    gate.m_hold = true;
    CTimer first("busy-1");
    CTimer second("busy-2");
    ASSERT_TRUE(first.start(0, 0, 0, gate.callback()));
    ASSERT_TRUE(second.start(0, 0, 0, gate.callback()));
    ASSERT_TRUE(wait_until([&] { return gate.m_entered.load() == 2; }));
    CProbe probe;
    CTimer late("late");
    ASSERT_TRUE(late.start(0, 0, 7, probe.callback()));
    EXPECT_TRUE(stays_false_for(probe.m_entered, 0, milliseconds(100)));
    const uint64_t released = tick_ms();
    gate.m_hold = false;
    ASSERT_TRUE(wait_until([&] { return probe.m_finished.load() == 1; }));
    EXPECT_GE(probe.fires()[0].tick, released);
    EXPECT_EQ(probe.fires()[0].argument, 7u);
}

TEST(ATimer, RefusesToStartWhileArmedAndKeepsItsFirstSettings) {
    CProbe probe;
    CTimer timer("armed");
    ASSERT_TRUE(timer.start(0, 10000, 1, probe.callback()));
    EXPECT_FALSE(timer.start(0, 0, 2, probe.callback()));
    EXPECT_TRUE(timer.is_active());
    EXPECT_TRUE(stays_false_for(probe.m_entered, 0, milliseconds(100)));
    EXPECT_TRUE(timer.stop(1));
    EXPECT_FALSE(timer.is_active());
    EXPECT_FALSE(timer.stop(1));
}

TEST(ATimer, StopWithoutWaitDropsTheTimerWhenItComesDue) {
    CProbe probe;
    CTimer timer("dropped");
    ASSERT_TRUE(timer.start(0, 50, 0, probe.callback()));
    EXPECT_TRUE(timer.stop(0));
    // Cancelled, yet still in the list until it comes due.
    EXPECT_TRUE(timer.is_active());
    EXPECT_FALSE(timer.start(0, 0, 0, probe.callback()));
    ASSERT_TRUE(wait_until([&] { return !timer.is_active(); }));
    EXPECT_EQ(probe.m_entered.load(), 0);
    EXPECT_TRUE(timer.start(0, 0, 0, probe.callback()));
    EXPECT_TRUE(wait_until([&] { return probe.m_finished.load() == 1; }));
}

TEST(ATimer, StopWithWaitReturnsOnlyAfterTheRunningCallbackHasFinished) {
    CProbe probe;
    probe.m_slow_ms = 200;
    CTimer timer("slow");
    ASSERT_TRUE(timer.start(0, 0, 0, probe.callback()));
    ASSERT_TRUE(wait_until([&] { return probe.m_entered.load() == 1; }));
    EXPECT_TRUE(timer.is_running());
    EXPECT_TRUE(timer.stop(1));
    EXPECT_EQ(probe.m_finished.load(), 1);
    EXPECT_FALSE(timer.is_running());
    EXPECT_FALSE(timer.is_active());
}

TEST(ATimer, CanBeDestroyedWhileItsCallbackRuns) {
    CProbe probe;
    probe.m_slow_ms = 200;
    auto timer = std::make_unique<CTimer>("destroyed");
    ASSERT_TRUE(timer->start(20, 0, 0, probe.callback()));
    ASSERT_TRUE(wait_until([&] { return probe.m_entered.load() == 1; }));
    timer.reset();
    EXPECT_EQ(probe.m_finished.load(), 1);
    EXPECT_TRUE(stays_false_for(probe.m_entered, 1, milliseconds(100)));
}

TEST(ATimer, BecomesOneShotWhenItsCallbackSetsThePeriodToZero) {
    CProbe probe;
    CTimer timer("periodic");
    probe.m_timer_to_make_one_shot = &timer;
    ASSERT_TRUE(timer.start(20, 0, 0, probe.callback()));
    ASSERT_TRUE(wait_until([&] { return !timer.is_active(); }));
    EXPECT_EQ(probe.m_finished.load(), 1);
}

TEST(ATimer, KeepsAtMost127CharactersOfItsName) {
    EXPECT_EQ(std::strlen(CTimer(std::string(200, 'n').c_str()).name()), 127u);
    EXPECT_STREQ(CTimer("timer").name(), "timer");
    EXPECT_STREQ(CTimer(nullptr).name(), "");
}
