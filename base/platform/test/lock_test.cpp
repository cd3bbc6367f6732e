#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "interrupter.h"
#include "quorel/platform/mutex.h"
#include "quorel/platform/semaphore.h"
#include "quorel/testsupport/wait.h"

using Quorel::Iot::Platform::CMutex;
using Quorel::Iot::Platform::CMutexGuard;
using Quorel::Iot::Platform::CSemaphore;
using Quorel::Iot::Testing::CInterrupter;
using Quorel::Iot::Testing::elapsed_ms;
using Quorel::Iot::Testing::wait_until;
using Clock = std::chrono::steady_clock;

namespace {

bool try_lock_elsewhere(CMutex& mutex) {
    bool taken = false;
    std::thread other([&] {
        if (mutex.try_lock()) {
            taken = true;
            mutex.unlock();
        }
    });
    other.join();
    return taken;
}

// Runs wait(timeout) on an empty semaphore while another thread posts once, `post_after` into the
// wait. A count that the wait did not take must still be there afterwards.
void expect_wait_with_post(uint32_t timeout, std::chrono::milliseconds post_after, bool taken, long long at_least) {
    CSemaphore sem(0);
    const auto begin = Clock::now();
    std::thread poster([&] {
        std::this_thread::sleep_until(begin + post_after);
        sem.post();
    });
    EXPECT_EQ(sem.wait(timeout), taken);
    const long long took = elapsed_ms(begin);
    poster.join();
    EXPECT_GE(took, at_least);
    EXPECT_LE(took, 1000);
    EXPECT_EQ(sem.try_wait(), !taken);
}

}  // namespace

TEST(AMutex, KeepsItsNameAndDefaultsToAnEmptyOne) {
    EXPECT_EQ(CMutex("store").name(), "store");
    EXPECT_EQ(CMutex(nullptr).name(), "");
}

TEST(AMutex, IsHeldByAGuardUntilTheGuardGoes) {
    CMutex mutex;
    {
        CMutexGuard guard(mutex);
        EXPECT_FALSE(try_lock_elsewhere(mutex));
    }
    EXPECT_TRUE(try_lock_elsewhere(mutex));
}

TEST(ASemaphore, TakesACountPostedBeforeTheWaitWithoutSleeping) {
    CSemaphore sem(0);
    sem.post();
    const auto begin = Clock::now();
    EXPECT_TRUE(sem.wait(1000));
    EXPECT_LT(elapsed_ms(begin), 20);
    EXPECT_FALSE(sem.try_wait());
}

TEST(ASemaphore, StartsWithItsInitialCount) {
    CSemaphore sem(2);
    EXPECT_TRUE(sem.try_wait());
    EXPECT_TRUE(sem.try_wait());
    EXPECT_FALSE(sem.try_wait());
}

TEST(ASemaphore, GivesUpAOneMillisecondWaitAfterOneFiftyMillisecondStep) {
    CSemaphore sem(0);
    const auto begin = Clock::now();
    EXPECT_FALSE(sem.wait(1));
    const long long took = elapsed_ms(begin);
    EXPECT_GE(took, 45);
    EXPECT_LE(took, 1000);
}

TEST(ASemaphore, MakesOneAttemptForFiftyMillisecondsAndIgnoresAPostDuringTheFinalSleep) {
    expect_wait_with_post(50, std::chrono::milliseconds(25), false, 45);
}

TEST(ASemaphore, MakesASecondAttemptForFiftyOneMilliseconds) {
    expect_wait_with_post(51, std::chrono::milliseconds(25), true, 45);
}

TEST(ASemaphore, RoundsATimeoutUpToWholeStepsBeforeGivingUp) {
    // 120 ms: attempts at 0, 50 and 100 ms, then a last sleep; the post at 125 ms comes too late.
    expect_wait_with_post(120, std::chrono::milliseconds(125), false, 145);
}

TEST(ASemaphore, WaitForTakesAPostTheMomentItComes) {
    // The fastest of a few waits for a post 5 ms away: polling in 50 ms steps could not go below 50.
    long long fastest = 1000;
    for (int i = 0; i < 5; ++i) {
        CSemaphore sem(0);
        const auto begin = Clock::now();
        std::thread poster([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            sem.post();
        });
        EXPECT_TRUE(sem.wait_for(2000));
        fastest = std::min(fastest, elapsed_ms(begin));
        poster.join();
    }
    EXPECT_LT(fastest, 30);
}

TEST(ASemaphore, WaitForGivesUpAtItsTimeoutAndZeroDoesNotWait) {
    CSemaphore sem(0);
    auto begin = Clock::now();
    EXPECT_FALSE(sem.wait_for(0));
    EXPECT_LT(elapsed_ms(begin), 20);
    begin = Clock::now();
    EXPECT_FALSE(sem.wait_for(60));
    const long long took = elapsed_ms(begin);
    EXPECT_GE(took, 59);
    EXPECT_LE(took, 1000);
    sem.post();
    EXPECT_TRUE(sem.wait_for(0));
    EXPECT_FALSE(sem.try_wait());
}

TEST(ASemaphore, KeepsWaitingWithoutTimeoutWhenSignalsInterruptIt) {
    CSemaphore sem(0);
    std::atomic<bool> done{false};
    std::atomic<bool> result{false};
    std::atomic<pthread_t> waiter_id{};
    std::atomic<bool> waiter_ready{false};
    std::thread waiter([&] {
        waiter_id = pthread_self();
        waiter_ready = true;
        result = sem.wait(0);
        done = true;
    });
    ASSERT_TRUE(wait_until([&] { return waiter_ready.load(); }));
    {
        CInterrupter interrupter(waiter_id.load());
        ASSERT_TRUE(wait_until([] { return CInterrupter::delivered() >= 5; }));
        EXPECT_FALSE(done.load());
        sem.post();
        ASSERT_TRUE(wait_until([&] { return done.load(); }));
    }
    waiter.join();
    EXPECT_TRUE(result.load());
}
