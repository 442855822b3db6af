#pragma once

#include <cstdint>

namespace kavra::test {

// Reads the frame index drawn into every fixture frame: a band over the top
// 2/15 of the picture split into 10 equal blocks, block b white when bit b of
// the index is set. Each reader samples the centre of each block and
// thresholds at mid-grey. Results are -1 when a block is neither clearly dark
// nor clearly light (not a fixture frame, or a damaged one).

// From a luma plane in coded orientation.
int frameIndexFromLuma(const uint8_t* y, int linesize, int width, int height);

// From RGBA pixels (bytes R, G, B, A; rows `strideBytes` apart) of a picture
// shown in display orientation: `rotation` is the clockwise angle (0, 90,
// 180, 270) by which the coded picture was turned to give this one.
int frameIndexFromRgba(const uint8_t* rgba, int strideBytes, int width, int height, int rotation = 0);

}  // namespace kavra::test
