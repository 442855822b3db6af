#pragma once

#include <climits>
#include <cmath>
#include <cstdint>

extern "C" {
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
