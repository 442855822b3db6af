#include "Render/Timer.h"

#include <utility>

extern "C" {
#include <libavutil/time.h>
}

#include "Common/MediaTime.h"

namespace {
constexpr int kIdle = 0;
constexpr int kRunning = 1;
constexpr int kPaused = 2;
}  // namespace

Timer::Timer() : Timer(TimeSource()) {}

Timer::Timer(TimeSource timeSource)
    : mBaseSystemTime(kNoTime),
      mSpeed(1.0),
      mCurrentTimeUs(0.0),
      mState(kIdle),
      mTimeSource(std::move(timeSource)) {}

Timer::~Timer() = default;

int64_t Timer::now() const { return mTimeSource ? mTimeSource() : av_gettime(); }

void Timer::fold() {
    double factor = mState == kPaused ? 0.0 : mSpeed;
    int64_t current = mState == kRunning ? now() : kNoTime;
    // Both ends are kNoTime while the clock does not run: no time elapsed.
    // The subtraction is done unsigned so that a clock source that jumps
    // cannot overflow it; the result is the same two's-complement value.
    int64_t elapsed = static_cast<int64_t>(static_cast<uint64_t>(current) - static_cast<uint64_t>(mBaseSystemTime));
    mCurrentTimeUs += factor * static_cast<double>(elapsed);
    // A second reading: the microseconds between the two are not counted.
    mBaseSystemTime = mState == kRunning ? now() : kNoTime;
}

void Timer::start() {
    NativeMutexLock lock(mLock);
    mState = kRunning;
    mBaseSystemTime = now();
}

void Timer::pause() {
    NativeMutexLock lock(mLock);
    mBaseSystemTime = kNoTime;
    mState = kPaused;
}

void Timer::setTime(int ms) {
    NativeMutexLock lock(mLock);
    float product = static_cast<float>(ms) * 1000.0f;
    mCurrentTimeUs = static_cast<double>(product);
    mBaseSystemTime = mState == kRunning ? now() : kNoTime;
}

int Timer::getCurrentTime() {
    NativeMutexLock lock(mLock);
    fold();
    return MediaTime::saturate(mCurrentTimeUs / 1000.0);
}

void Timer::setTimerSpeed(float speed) {
    NativeMutexLock lock(mLock);
    fold();
    mSpeed = static_cast<double>(speed);
}

void Timer::updateCurrentTime() { fold(); }

int64_t Timer::getCurrentSystemTime() { return mState == kRunning ? now() : kNoTime; }
