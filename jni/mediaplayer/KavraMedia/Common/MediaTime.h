#pragma once

#include <climits>
#include <cmath>
#include <cstdint>

extern "C" {
#include <libavutil/avutil.h>
#include <libavutil/mathematics.h>
#include <libavutil/rational.h>
}

// Conversions between stream ticks and the engine's 32-bit millisecond times.
class MediaTime {
public:
    // ticks x time base x 1000, in double precision, truncated toward zero.
    // Out-of-range values (including the no-time value) saturate at the
    // int32 limits instead of invoking an undefined conversion.
    static int ticksToMs(int64_t ticks, AVRational timeBase) {
        double ms = static_cast<double>(ticks) * (static_cast<double>(timeBase.num) / timeBase.den) * 1000.0;
        return saturate(ms);
    }

    // The end of a span of ticks [start, start + duration), in ms rounded
    // up, computed exactly in integers; 0 when either is missing.
    static int endMs(int64_t start, int64_t duration, AVRational timeBase) {
        if (start == AV_NOPTS_VALUE || duration <= 0 || timeBase.den <= 0 || timeBase.num <= 0 ||
            start > INT64_MAX - duration) {
            return 0;
        }
        const int64_t ms = av_rescale_rnd(start + duration, static_cast<int64_t>(timeBase.num) * 1000, timeBase.den,
                                          static_cast<AVRounding>(AV_ROUND_UP | AV_ROUND_PASS_MINMAX));
        return ms > INT_MAX ? INT_MAX : ms < INT_MIN ? INT_MIN : static_cast<int>(ms);
    }

    // Truncates toward zero and saturates at the int32 limits; NaN gives 0.
    static int saturate(double value) {
        if (std::isnan(value)) {
            return 0;
        }
        if (value >= static_cast<double>(INT_MAX)) {
            return INT_MAX;
        }
        if (value <= static_cast<double>(INT_MIN)) {
            return INT_MIN;
        }
        return static_cast<int>(value);
    }
};
