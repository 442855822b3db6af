#include "support/FrameIndex.h"

#include <functional>

namespace kavra::test {
namespace {
constexpr int kBits = 10;
// Values between these are neither black (16) nor white (235) after any
// sane compression or scaling.
constexpr int kDark = 90;
constexpr int kLight = 165;

// `sample(x, y)` reads brightness at a point of the coded picture.
int readIndex(int codedWidth, int codedHeight, const std::function<int(int, int)>& sample) {
    int bandHeight = codedHeight * 2 / 15;
    if (codedWidth < kBits || bandHeight < 1) {
        return -1;
    }
    int y = bandHeight / 2;
    int index = 0;
    for (int b = 0; b < kBits; ++b) {
        int x = static_cast<int>((b + 0.5) * codedWidth / kBits);
        int v = sample(x, y);
        if (v >= kLight) {
            index |= 1 << b;
        } else if (v > kDark) {
            return -1;
        }
    }
    return index;
}
}  // namespace

int frameIndexFromLuma(const uint8_t* y, int linesize, int width, int height) {
    return readIndex(width, height, [&](int x, int row) { return y[row * linesize + x]; });
}

int frameIndexFromRgba(const uint8_t* rgba, int strideBytes, int width, int height, int rotation) {
    bool quarter = rotation == 90 || rotation == 270;
    int codedWidth = quarter ? height : width;
    int codedHeight = quarter ? width : height;
    return readIndex(codedWidth, codedHeight, [&](int x, int y) {
        // Where coded (x, y) landed in the displayed picture.
        int dx = x;
        int dy = y;
        switch (rotation) {
        case 90: dx = codedHeight - 1 - y; dy = x; break;
        case 180: dx = codedWidth - 1 - x; dy = codedHeight - 1 - y; break;
        case 270: dx = y; dy = codedWidth - 1 - x; break;
        default: break;
        }
        const uint8_t* p = rgba + dy * strideBytes + dx * 4;
        return (p[0] + p[1] + p[2]) / 3;
    });
}

}  // namespace kavra::test
