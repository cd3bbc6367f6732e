#include "quorel/platform/thread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>

#include "interrupter.h"
#include "quorel/testsupport/wait.h"

using Quorel::Iot::Platform::CThread;
using Quorel::Iot::Platform::InternalThread;
using Quorel::Iot::Platform::tick_ms;
using Quorel::Iot::Testing::CInterrupter;
using Quorel::Iot::Testing::elapsed_ms;
using Quorel::Iot::Testing::wait_until;
using Clock = std::chrono::steady_clock;

namespace {

// A worker that loops in 5 ms steps; a stubborn one never looks at its keep-running flag.
class CLoopThread : public CThread {
public:
    explicit CLoopThread(bool cooperative, uint32_t stack_size = 0)
        : CThread("test_loop", POLICY_NORMAL, 64, stack_size), m_cooperative(cooperative) {}
    ~CLoopThread() override { stop(); }

    std::atomic<int> m_runs{0};
    std::atomic<bool> m_returned{false};
    std::atomic<int32_t> m_tid{0};

protected:
    void threadProc() override {
        m_returned = false;
        m_tid = current_tid();
        m_runs.fetch_add(1);
        while (!m_cooperative || is_running()) sleep_ms(5);
        m_returned = true;
    }

private:
    const bool m_cooperative;
};

bool task_exists(int32_t tid) { return access(("/proc/self/task/" + std::to_string(tid)).c_str(), F_OK) == 0; }

}  // namespace

TEST(AThread, RunsThreadProcOnItsOwnKernelThreadAndReportsItsTid) {
    CLoopThread thread(true);
    EXPECT_TRUE(thread.is_stopped());
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(wait_until([&] { return thread.m_tid.load() != 0 && thread.get_tid() != 0; }));
    EXPECT_EQ(thread.get_tid(), thread.m_tid.load());
    EXPECT_NE(thread.get_tid(), CThread::current_tid());
    EXPECT_TRUE(thread.is_running());
    EXPECT_FALSE(thread.is_stopped());
}

TEST(AThread, RefusesASecondStartWhileRunning) {
    CLoopThread thread(true);
    ASSERT_TRUE(thread.start());
    EXPECT_FALSE(thread.start());
    thread.stop();
    EXPECT_EQ(thread.m_runs.load(), 1);
}

TEST(AThread, StopsACooperativeThreadWithinItsPollingStep) {
    CLoopThread thread(true);
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(wait_until([&] { return thread.m_runs.load() == 1; }));
    const auto begin = Clock::now();
    thread.stop();
    EXPECT_LT(elapsed_ms(begin), 1000);
    EXPECT_TRUE(thread.m_returned.load());
    EXPECT_TRUE(thread.is_stopped());
    EXPECT_FALSE(thread.is_running());
}

TEST(AThread, LetsRequestStopEndTheLoopWithoutWaiting) {
    CLoopThread thread(true);
    ASSERT_TRUE(thread.start());
    thread.request_stop();
    EXPECT_FALSE(thread.is_running());
    EXPECT_TRUE(wait_until([&] { return thread.is_stopped(); }));
    EXPECT_TRUE(thread.m_returned.load());
}

TEST(AThread, CanBeStartedAgainOnceItHasEnded) {
    CLoopThread thread(true);
    ASSERT_TRUE(thread.start());
    thread.stop();
    ASSERT_TRUE(thread.start());
    EXPECT_TRUE(wait_until([&] { return thread.m_runs.load() == 2; }));
}

TEST(AThread, IsCancelledWhenItIgnoresStopForTheWholeGracePeriod) {
    CLoopThread thread(false);
    ASSERT_TRUE(thread.start());
    ASSERT_TRUE(wait_until([&] { return thread.m_tid.load() != 0; }));
    const int32_t tid = thread.m_tid.load();
    const auto begin = Clock::now();
    thread.stop();
    const long long took = elapsed_ms(begin);
    EXPECT_GE(took, 2950);
    EXPECT_LE(took, 6000);
    EXPECT_TRUE(thread.is_stopped());
    EXPECT_EQ(thread.get_tid(), 0);
    EXPECT_TRUE(wait_until([&] { return !task_exists(tid); }, std::chrono::seconds(2)));
    EXPECT_FALSE(thread.m_returned.load());
}

TEST(AThread, KillOfAnIdleThreadReportsThatNothingWasRunning) {
    CLoopThread thread(true);
    EXPECT_FALSE(thread.kill());
}

TEST(AnInternalThread, RoundsStackSizesUpToWhole16KiBBlocks) {
    EXPECT_EQ(InternalThread::round_stack_size(0), 0u);
    EXPECT_EQ(InternalThread::round_stack_size(1), 16384u);
    EXPECT_EQ(InternalThread::round_stack_size(16384), 16384u);
    EXPECT_EQ(InternalThread::round_stack_size(16385), 32768u);
    CLoopThread thread(true, 16385);
    EXPECT_EQ(thread.internal().stack_size(), 32768u);
}

TEST(AnInternalThread, MapsRealtimePrioritiesOntoTheWholeFifoRange) {
    const uint32_t max = static_cast<uint32_t>(sched_get_priority_max(SCHED_FIFO));
    const uint32_t min = static_cast<uint32_t>(sched_get_priority_min(SCHED_FIFO));
    EXPECT_EQ(InternalThread::realtime_priority(128), max);
    EXPECT_EQ(InternalThread::realtime_priority(200), max);
    EXPECT_EQ(InternalThread::realtime_priority(1), min);
    EXPECT_EQ(InternalThread::realtime_priority(0), min);
    const uint32_t middle = InternalThread::realtime_priority(64);
    EXPECT_GT(middle, min);
    EXPECT_LT(middle, max);
}

TEST(AnInternalThread, StoresTheSchedulerPriorityOnlyForRealtimeThreads) {
    InternalThread realtime("rt", CThread::POLICY_REALTIME, 200, 0);
    EXPECT_EQ(realtime.priority(), static_cast<uint32_t>(sched_get_priority_max(SCHED_FIFO)));
    InternalThread normal("normal", CThread::POLICY_NORMAL, 200, 0);
    EXPECT_EQ(normal.priority(), 200u);
}

TEST(ATick, NeverDecreasesAndFollowsRealTime) {
    const auto begin = Clock::now();
    const uint64_t first = tick_ms();
    uint64_t last = first;
    bool monotonic = true;
    ASSERT_TRUE(wait_until([&] {
        const uint64_t now = tick_ms();
        monotonic = monotonic && now >= last;
        last = now;
        return now >= first + 300;
    }));
    const long long real = elapsed_ms(begin);
    EXPECT_TRUE(monotonic);
    // One clock tick (10 ms at 100 Hz) of quantisation at each end.
    EXPECT_GE(real, 300 - 20);
    EXPECT_LE(real, 300 + 100);
}

TEST(AThreadSleep, YieldsForZeroMilliseconds) {
    const auto begin = Clock::now();
    CThread::sleep_ms(0);
    EXPECT_LT(elapsed_ms(begin), 50);
}

TEST(AThreadSleep, SleepsTheFullTimeEvenWhenSignalsInterruptIt) {
    const auto begin = Clock::now();
    {
        CInterrupter interrupter(pthread_self());
        CThread::sleep_ms(200);
    }
    const long long took = elapsed_ms(begin);
    EXPECT_GT(CInterrupter::delivered(), 0);
    // The rest of the sleep is computed from the tick, which is one clock tick (10 ms) coarse.
    EXPECT_GE(took, 200 - 10);
    EXPECT_LE(took, 1000);
}
