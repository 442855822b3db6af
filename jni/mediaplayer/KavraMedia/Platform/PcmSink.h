#pragma once

#include <cstdint>

// Where the audio renderer hands its PCM: signed 16-bit interleaved samples
// at the frame's own rate and channel count. The bytes are valid only for
// the length of the call; the call's duration paces the audio thread.
class PcmSink {
public:
    virtual ~PcmSink() = default;
    // Returns 0 when the bytes were delivered, -1 when they were dropped.
    virtual int deliver(const uint8_t* pcm, int size) = 0;
    // Called just before each deliver(), on the same thread: the
    // presentation time (ms, the stream's own timeline) of the first sample
    // and the format of the bytes that follow. Sinks that schedule or
    // record audio by time use it; the default ignores it.
    virtual void willDeliver(int ptsMs, int sampleRate, int channels) {
        (void)ptsMs;
        (void)sampleRate;
        (void)channels;
    }
};
