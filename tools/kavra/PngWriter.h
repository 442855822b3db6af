#pragma once

#include <cstdint>
#include <string>

namespace tool {

// Encodes an RGBA picture (bytes R, G, B, A; rows `strideBytes` apart) with
// FFmpeg's PNG encoder and writes it to `path`. False with a one-line
// reason in `error` when encoding or writing fails.
bool writePng(const std::string& path, const uint8_t* rgba, int width, int height, int strideBytes,
              std::string* error);

}  // namespace tool
