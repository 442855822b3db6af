#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "Common/NativeMutex.h"

// The playback clock: a media time in microseconds that advances with the
// system clock, scaled by a speed factor, while the clock runs. Media time
// enters and leaves in whole milliseconds.
//
// The system clock is read through one time source (av_gettime() unless
// another is given), so that the clock can be driven by hand.
class Timer {
public:
    // Microseconds of system time.
    using TimeSource = std::function<int64_t()>;
    // The value of the system time while the clock does not run.
    static constexpr int64_t kNoTime = INT64_MIN;

    Timer();
    explicit Timer(TimeSource timeSource);
    ~Timer();
    Timer(const Timer&) = delete;
    Timer& operator=(const Timer&) = delete;

    // Starts or resumes the clock from the time it holds.
    void start();
    // Stops the clock. Time run since the last fold (start, setTime,
    // getCurrentTime, setTimerSpeed) is not counted.
    void pause();
    // Sets the media time. The product ms x 1000 is taken in single
    // precision, so large times are stored rounded to a float.
    void setTime(int ms);
    // Advances the stored time and returns it in ms, truncated.
    int getCurrentTime();
    // Time run so far counts at the old speed, from now on at the new one.
    void setTimerSpeed(float speed);
    // Advances the stored time; the caller holds the lock.
    void updateCurrentTime();
    // The system time while running, else kNoTime. No lock.
    int64_t getCurrentSystemTime();

private:
    void fold();
    int64_t now() const;

    int64_t mBaseSystemTime;
    double mSpeed;
    double mCurrentTimeUs;
    NativeMutex mLock;
    // 0 idle (never started), 1 running, 2 paused.
    std::atomic<int> mState;
    TimeSource mTimeSource;
};
