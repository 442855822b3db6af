#include "Platform/MediaCodec.h"

#include <cstring>

#include "Platform/FFmpegMediaCodec.h"

// On Linux the codec is FFmpeg's decoder behind the buffer-queue contract.
std::unique_ptr<MediaCodec> MediaCodec::createDecoderByType(const char* mimeType) {
    if (mimeType == nullptr) {
        return nullptr;
    }
    if (strcmp(mimeType, FFmpegMediaCodec::kMimeAvc) == 0) {
        return std::unique_ptr<MediaCodec>(new FFmpegMediaCodec(AV_CODEC_ID_H264));
    }
    return nullptr;
}
