// Timed waits: a time-out is no error, a signal ends a wait early, and
// deadlines that cross a whole second are valid for pthread_cond_timedwait.

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

#include "Common/NativeCondition.h"
#include "Common/NativeMutex.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

TEST(NativeCondition, DeadlinesCarryIntoTheNextSecond) {
    struct Case {
        long sec, nsec, timeoutMs, wantSec, wantNsec;
    };
    const Case cases[] = {
        {10, 1, 999, 10, 999000001},     // no carry needed
        {10, 1000001, 999, 11, 1},       // 1,000,000,001 ns carries
        {10, 1000000, 999, 11, 0},       // exactly one second carries too
        {10, 999999999, 1, 11, 999999},  // crossing by a millisecond
        {10, 500000000, 2500, 13, 0},    // whole seconds plus a carry
        {10, 0, 0, 10, 0},
    };
    for (const Case& c : cases) {
        struct timespec d = NativeCondition::deadlineAfter(timespec{c.sec, c.nsec}, c.timeoutMs);
        EXPECT_EQ(d.tv_sec, c.wantSec) << c.nsec << " + " << c.timeoutMs << " ms";
        EXPECT_EQ(d.tv_nsec, c.wantNsec) << c.nsec << " + " << c.timeoutMs << " ms";
    }
}

TEST(NativeCondition, TimeOutsAreNoErrorOnAnyClockReading) {
    // Real clock readings land on every nanosecond value over time; no wait
    // may ever report a failure (which would be logged).
    LogCapture log;
    NativeMutex mutex;
    NativeCondition cond;
    mutex.lock();
    EXPECT_FALSE(cond.wait(mutex, 0));
    EXPECT_FALSE(cond.wait(mutex, -5));
    for (int i = 0; i < 200; ++i) {
        EXPECT_FALSE(cond.wait(mutex, 1));
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
        bool woken = true;
        while (!flag && woken) {
            woken = cond.wait(mutex, 10000);
        }
        mutex.unlock();
        return woken;
    });
    while (!ready) {
        std::this_thread::yield();
    }
    mutex.lock();
    flag = true;
    cond.notifyOne();
    mutex.unlock();
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_TRUE(waiter.get());
}

}  // namespace
}  // namespace kavra::test
