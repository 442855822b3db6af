#include "trimmer/KeepCodecStream.h"

#include "trimmer/AvcKeepStream.h"
#include "trimmer/HevcKeepStream.h"

std::unique_ptr<KeepCodecStream> KeepCodecStream::forCodec(AVCodecID codec) {
    switch (codec) {
    case AV_CODEC_ID_H264: return std::make_unique<AvcKeepStream>();
    case AV_CODEC_ID_HEVC: return std::make_unique<HevcKeepStream>();
    default: return nullptr;
    }
}
