#include "VirtualAudioDevice.h"

#include <algorithm>

VirtualAudioDevice::VirtualAudioDevice(int queueMs)
    : mCapacityUs(queueMs * 1000.0),
      mSpeed(1.0),
      mChunks(),
      mHead(0),
      mCount(0),
      mQueuedUs(0),
      mLastAdvance(Clock::now()),
      mNextPtsMs(0),
      mSampleRate(0),
      mChannels(0),
      mStopped(false),
      mDeliveredUs(0) {}

void VirtualAudioDevice::willDeliver(int ptsMs, int sampleRate, int channels) {
    std::lock_guard<std::mutex> lock(mMutex);
    mNextPtsMs = ptsMs;
    mSampleRate = sampleRate;
    mChannels = channels;
}

void VirtualAudioDevice::advanceLocked(Clock::time_point now) {
    // Media time played since the last look.
    double elapsedUs = std::chrono::duration<double, std::micro>(now - mLastAdvance).count() * mSpeed;
    mLastAdvance = now;
    while (elapsedUs > 0 && mCount > 0) {
        Chunk& front = mChunks[mHead];
        double left = front.durationUs - front.playedUs;
        double step = std::min(left, elapsedUs);
        front.playedUs += step;
        mQueuedUs -= step;
        elapsedUs -= step;
        if (front.playedUs >= front.durationUs) {
            mHead = (mHead + 1) % kMaxChunks;
            mCount -= 1;
        }
    }
    if (mCount == 0) {
        mQueuedUs = 0;
    }
}

int VirtualAudioDevice::deliver(const uint8_t* /*pcm*/, int size) {
    std::unique_lock<std::mutex> lock(mMutex);
    if (mStopped || size <= 0 || mSampleRate <= 0 || mChannels <= 0) {
        return -1;
    }
    const double durationUs = size / (2.0 * mChannels) * 1e6 / mSampleRate;
    advanceLocked(Clock::now());
    // A device accepts a write once it fits; an empty device takes any
    // write whole. The wait is what the queued sound takes to play.
    for (;;) {
        if (mStopped) {
            return -1;
        }
        const double capacityUs = mCapacityUs * mSpeed;
        bool fits = mCount == 0 || (mQueuedUs + durationUs <= capacityUs && mCount < kMaxChunks);
        if (fits) {
            break;
        }
        double waitUs = mCount < kMaxChunks ? mQueuedUs + durationUs - capacityUs
                                            : mChunks[mHead].durationUs - mChunks[mHead].playedUs;
        waitUs /= mSpeed;
        mCond.wait_for(lock, std::chrono::microseconds(static_cast<int64_t>(waitUs) + 1));
        advanceLocked(Clock::now());
    }
    if (mCount == 0) {
        // The playhead starts with the first sample of this write.
        mLastAdvance = Clock::now();
    }
    mChunks[(mHead + mCount) % kMaxChunks] = Chunk{static_cast<double>(mNextPtsMs), durationUs, 0};
    mCount += 1;
    mQueuedUs += durationUs;
    mDeliveredUs += static_cast<int64_t>(durationUs);
    return 0;
}

bool VirtualAudioDevice::playingPtsMs(double* ptsMs) {
    std::lock_guard<std::mutex> lock(mMutex);
    advanceLocked(Clock::now());
    if (mCount == 0) {
        return false;
    }
    const Chunk& front = mChunks[mHead];
    *ptsMs = front.ptsMs + front.playedUs / 1000.0;
    return true;
}

void VirtualAudioDevice::setSpeed(double speed) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (speed > 0) {
        advanceLocked(Clock::now());
        mSpeed = speed;
        mCond.notify_all();
    }
}

void VirtualAudioDevice::stop() {
    std::lock_guard<std::mutex> lock(mMutex);
    mStopped = true;
    mCond.notify_all();
}
