#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

#include "Platform/PcmSink.h"

// A sound device without hardware. PCM handed to it is played at the
// stream's own sample rate times the playback speed (as a phone's audio
// track set to that speed does) as wall time passes: the playhead runs while
// there is something queued and stands still when the queue runs dry.
// deliver() blocks while the queue is full, as a device's write does, for
// at most the time the queued sound takes to play; stop() cuts every wait
// short and makes later deliveries return at once.
//
// The playhead can be read from any thread (playingPtsMs), so a program can
// tell which instant of the stream is being heard while a picture is shown.
class VirtualAudioDevice : public PcmSink {
public:
    // `queueMs`: how much sound the device holds before a write blocks.
    explicit VirtualAudioDevice(int queueMs = 60);
    VirtualAudioDevice(const VirtualAudioDevice&) = delete;
    VirtualAudioDevice& operator=(const VirtualAudioDevice&) = delete;

    void willDeliver(int ptsMs, int sampleRate, int channels) override;
    int deliver(const uint8_t* pcm, int size) override;

    // True while sound is playing, with the stream time (ms) of the sample
    // at the playhead; false while the device is starved.
    bool playingPtsMs(double* ptsMs);
    // Plays `speed` times faster than the sample rate from now on.
    void setSpeed(double speed);
    // Ends every wait; deliveries from now on are dropped.
    void stop();
    // Milliseconds of sound accepted so far.
    double deliveredMs() const { return mDeliveredUs.load() / 1000.0; }

private:
    using Clock = std::chrono::steady_clock;
    struct Chunk {
        double ptsMs;
        double durationUs;
        double playedUs;
    };
    // Chunks queued, enough for the queue's length in the shortest frames
    // an audio codec makes.
    static constexpr size_t kMaxChunks = 256;

    // Under mMutex: moves the playhead to `now`.
    void advanceLocked(Clock::time_point now);

    // Wall time the queue holds; media time is wall time times mSpeed.
    const double mCapacityUs;
    double mSpeed;
    std::mutex mMutex;
    std::condition_variable mCond;
    // Guarded by mMutex.
    std::array<Chunk, kMaxChunks> mChunks;
    size_t mHead;
    size_t mCount;
    double mQueuedUs;
    Clock::time_point mLastAdvance;
    int mNextPtsMs;
    int mSampleRate;
    int mChannels;
    bool mStopped;
    std::atomic<int64_t> mDeliveredUs;
};
