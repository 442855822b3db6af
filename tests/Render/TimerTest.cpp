// The playback clock, driven by a time source that the test advances by hand.

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdint>
#include <utility>

#include "Render/Timer.h"

namespace kavra::test {
namespace {

class TimerTest : public ::testing::Test {
protected:
    TimerTest() : now(1000000000), reads(0), timer([this] {
        reads += 1;
        return now.load();
    }) {}

    void advanceMs(int64_t ms) { now += ms * 1000; }

    std::atomic<int64_t> now;
    std::atomic<int> reads;
    Timer timer;
};

TEST_F(TimerTest, IdleClockStandsStillAndKeepsWhatIsSet) {
    advanceMs(5000);
    EXPECT_EQ(timer.getCurrentTime(), 0);
    timer.setTime(5000);
    advanceMs(5000);
    EXPECT_EQ(timer.getCurrentTime(), 5000);
    EXPECT_EQ(reads.load(), 0) << "a clock that never ran has no use for the system time";
    EXPECT_EQ(timer.getCurrentSystemTime(), Timer::kNoTime);
    // The time is kept in microseconds in a float: 9000001000 us is stored
    // as 9000000512.
    const std::pair<int, int> cases[] = {
        {9000001, 9000000}, {16777217, 16777216}, {-40, -40}, {INT_MAX, INT_MAX}, {INT_MIN, INT_MIN}};
    for (auto c : cases) {
        timer.setTime(c.first);
        EXPECT_EQ(timer.getCurrentTime(), c.second) << c.first;
    }
}

TEST_F(TimerTest, SpeedChangesCountTimeAlreadyRunAtTheOldSpeed) {
    timer.setTimerSpeed(0.5f);
    timer.start();
    advanceMs(10000);
    timer.setTimerSpeed(2.0f);
    advanceMs(10000);
    EXPECT_EQ(timer.getCurrentTime(), 25000);
    EXPECT_EQ(timer.getCurrentSystemTime(), now.load());
}

TEST_F(TimerTest, PauseFreezesAndDropsTimeSinceTheLastReading) {
    timer.start();
    advanceMs(1000);
    EXPECT_EQ(timer.getCurrentTime(), 1000);
    // 300 ms run after the last reading are not counted by pause.
    advanceMs(300);
    timer.pause();
    advanceMs(60000);
    EXPECT_EQ(timer.getCurrentTime(), 1000);
    EXPECT_EQ(timer.getCurrentSystemTime(), Timer::kNoTime);
    // Resumes from where it stood.
    timer.start();
    advanceMs(250);
    EXPECT_EQ(timer.getCurrentTime(), 1250);
    // A reading folded in explicitly counts like any other before a pause.
    advanceMs(20);
    timer.updateCurrentTime();
    timer.pause();
    EXPECT_EQ(timer.getCurrentTime(), 1270);
}

TEST_F(TimerTest, SetTimeOnARunningClockRestartsTheInterval) {
    timer.start();
    advanceMs(700);
    timer.setTime(100);
    advanceMs(40);
    EXPECT_EQ(timer.getCurrentTime(), 140);
    timer.setTimerSpeed(3.0f);
    advanceMs(10);
    EXPECT_EQ(timer.getCurrentTime(), 170);
}

}  // namespace
}  // namespace kavra::test
