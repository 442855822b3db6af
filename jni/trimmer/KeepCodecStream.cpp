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

int KeepCodecStream::setUp(const AVCodecContext* decoder, const AVCodecParameters* input, AVRational frameRate,
                           AVRational sampleAspect, kavra::ScopedAVCodecContext* encoder, std::string* why) {
    mDecoder = decoder;
    mInput = input;
    mFrameRate = frameRate;
    mSampleAspect = sampleAspect;
    if (input->extradata == nullptr || input->extradata_size < 1 || input->extradata[0] != 1) {
        *why = std::string("the ") + avcodec_get_name(input->codec_id) + " stream has no configuration record";
        return -1;
    }
    return configure(encoder, why);
}
