// The playback clock, driven by a time source that the test advances by hand.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>

#include "Render/Timer.h"

namespace kavra::test {
namespace {

class TimerTest : public ::testing::Test {
protected:
    TimerTest() : now(1000000000), timer([this] { return now.load(); }) {}

    void advanceMs(int64_t ms) { now += ms * 1000; }

    std::atomic<int64_t> now;
    Timer timer;
};

TEST_F(TimerTest, SpeedChangesCountTimeAlreadyRunAtTheOldSpeed) {
    timer.setTimerSpeed(0.5f);
    timer.start();
    advanceMs(10000);
    timer.setTimerSpeed(2.0f);
    advanceMs(10000);
    EXPECT_EQ(timer.getCurrentTime(), 25000);
    EXPECT_EQ(timer.getCurrentSystemTime(), now.load());
    // Setting the time on the running clock restarts the interval.
    timer.setTime(100);
    advanceMs(40);
    EXPECT_EQ(timer.getCurrentTime(), 180);
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

}  // namespace
}  // namespace kavra::test
