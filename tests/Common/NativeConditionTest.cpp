// Deadlines of timed waits that cross a whole second must be valid for
// pthread_cond_timedwait (an invalid one is an error, not a time-out). A
// signal ending a wait is the queue tests' business: every one of their
// bounded waits needs it.

#include <gtest/gtest.h>

#include "Common/NativeCondition.h"

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

}  // namespace
}  // namespace kavra::test
