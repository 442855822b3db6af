#pragma once

// Small time helpers shared by the trimmer's classes.

#include <cstdint>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/mathematics.h>
}

namespace trimtime {

constexpr int64_t kNoTime = AV_NOPTS_VALUE;
constexpr int64_t kForever = INT64_MAX;
constexpr int64_t kBeginning = INT64_MIN;
constexpr AVRational kMicroseconds = {1, 1000000};

// The time a packet stands for: its presentation time, or its decoding time
// when the container gives none.
inline int64_t packetTime(const AVPacket* p) { return p->pts != kNoTime ? p->pts : p->dts; }

// The time before which no later packet can show a picture: its decoding
// time (presentation never precedes decoding).
inline int64_t packetOrder(const AVPacket* p) { return p->dts != kNoTime ? p->dts : p->pts; }

inline bool isKey(const AVPacket* p) { return (p->flags & AV_PKT_FLAG_KEY) != 0; }

// a + b, held at the int64 limits (times given from Java may be anything).
inline int64_t addSaturated(int64_t a, int64_t b) {
    int64_t sum;
    if (__builtin_add_overflow(a, b, &sum)) {
        return b > 0 ? INT64_MAX : INT64_MIN;
    }
    return sum;
}

// A time in microseconds as stream ticks, rounded as asked and held at the
// int64 limits.
inline int64_t usToTicks(int64_t us, AVRational tb, int rounding) {
    return av_rescale_q_rnd(us, kMicroseconds, tb, static_cast<AVRounding>(rounding | AV_ROUND_PASS_MINMAX));
}

}  // namespace trimtime
