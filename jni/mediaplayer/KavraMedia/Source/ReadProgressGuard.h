#pragma once

#include <cstdint>

extern "C" {
#include <libavformat/avformat.h>
}

// Decides when a read loop gives up on an input that keeps failing.
//
// On a damaged file av_read_frame can return the same error for ever (a
// sample table that promises a sample larger than can be allocated gives
// AVERROR(ENOMEM) on every call) while the I/O neither reaches its end nor
// moves. A loop that retries every error other than AVERROR_EOF would spin.
// Every read loop of the engine asks this guard instead: a run of failed
// reads during which the byte position stands still, or a very long run of
// failed reads whatever the position does, is the end of the input, and the
// input is remembered as damaged.
class ReadProgressGuard {
public:
    enum Outcome {
        // The read gave a packet.
        READ_PACKET,
        // A failed read that may be retried.
        READ_RETRY,
        // The input ended: AVERROR_EOF, or the I/O is at its end.
        READ_END,
        // The input ended through damage: failures that make no progress.
        READ_DAMAGED,
    };

    // Failed reads in a row at one byte position that end the input.
    static constexpr int kMaxStalledFailures = 16;
    // Failed reads in a row that end the input even if the position moves
    // (a demuxer that wanders without ever giving a packet).
    static constexpr int kMaxFailures = 1024;

    ReadProgressGuard() = default;

    // Classifies the result of one av_read_frame on `input`.
    Outcome onRead(int result, AVFormatContext* input);
    // Starts a new run after a seek; the damaged mark stays.
    void reset();
    // Some run of failures ended the input.
    bool damaged() const { return mDamaged; }

private:
    int mFailures = 0;
    int mStalled = 0;
    int64_t mLastPosition = -1;
    bool mDamaged = false;
};
