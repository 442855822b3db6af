// Timed waits: the time-out is honoured, a zero wait returns at once, and
// deadlines that cross a whole second are valid for pthread_cond_timedwait.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "Common/NativeCondition.h"
#include "Common/NativeMutex.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

using Clock = std::chrono::steady_clock;

long elapsedMs(Clock::time_point since) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - since).count());
}

TEST(NativeCondition, TimedWaitRunsOutAfterItsTimeout) {
    LogCapture log;
    NativeMutex mutex;
    NativeCondition cond;
    mutex.lock();
    auto start = Clock::now();
    EXPECT_FALSE(cond.wait(mutex, 60));
    EXPECT_GE(elapsedMs(start), 59);
    mutex.unlock();
    EXPECT_TRUE(log.lines().empty()) << "a time-out is not an error";
}

TEST(NativeCondition, ZeroAndNegativeWaitsReturnAtOnce) {
    LogCapture log;
    NativeMutex mutex;
    NativeCondition cond;
    mutex.lock();
    auto start = Clock::now();
    EXPECT_FALSE(cond.wait(mutex, 0));
    EXPECT_FALSE(cond.wait(mutex, -5));
    EXPECT_LT(elapsedMs(start), 50);
    mutex.unlock();
    EXPECT_TRUE(log.lines().empty());
}

TEST(NativeCondition, DeadlinesCarryIntoTheNextSecond) {
    struct Case {
        long sec, nsec, timeoutMs, wantSec, wantNsec;
    };
    const Case cases[] = {
        {10, 1, 999, 10, 999000001},        // no carry needed
        {10, 1000001, 999, 11, 1},          // 1,000,000,001 ns carries
        {10, 1000000, 999, 11, 0},          // exactly one second carries too
        {10, 999999999, 1, 11, 999999},     // crossing by a millisecond
        {10, 500000000, 2500, 13, 0},       // whole seconds plus a carry
        {10, 0, 0, 10, 0},
    };
    for (const Case& c : cases) {
        struct timespec now {c.sec, c.nsec};
        struct timespec d = NativeCondition::deadlineAfter(now, c.timeoutMs);
        EXPECT_EQ(d.tv_sec, c.wantSec) << c.nsec << " + " << c.timeoutMs << " ms";
        EXPECT_EQ(d.tv_nsec, c.wantNsec) << c.nsec << " + " << c.timeoutMs << " ms";
        EXPECT_LT(d.tv_nsec, 1000000000L);
    }
}

TEST(NativeCondition, ManyShortWaitsNeverFail) {
    // Real clock readings land on every nanosecond value over time; no wait
    // may ever report a failure (which would be logged).
    LogCapture log;
    NativeMutex mutex;
    NativeCondition cond;
    mutex.lock();
    for (int i = 0; i < 200; ++i) {
        cond.wait(mutex, 1);
    }
    mutex.unlock();
    EXPECT_TRUE(log.lines().empty());
}

TEST(NativeCondition, SignalWakesATimedWaiterEarly) {
    NativeMutex mutex;
    NativeCondition cond;
    std::atomic<bool> ready{false};
    bool flag = false;
    auto waiter = std::async(std::launch::async, [&] {
        mutex.lock();
        ready = true;
        bool woken = false;
        while (!flag) {
            woken = cond.wait(mutex, 10000);
            if (!woken) {
                break;
            }
        }
        mutex.unlock();
        return woken;
    });
    while (!ready) {
        std::this_thread::yield();
    }
    auto start = Clock::now();
    mutex.lock();
    flag = true;
    cond.notifyOne();
    mutex.unlock();
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_TRUE(waiter.get());
    EXPECT_LT(elapsedMs(start), 5000);
}

TEST(NativeMutex, TryLockOnAMutexHeldElsewhereFailsQuietly) {
    LogCapture log;
    NativeMutex mutex;
    mutex.lock();
    auto other = std::async(std::launch::async, [&] { return mutex.tryLock(); });
    EXPECT_FALSE(other.get());
    mutex.unlock();
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
    EXPECT_TRUE(log.lines().empty());
}

}  // namespace
}  // namespace kavra::test
