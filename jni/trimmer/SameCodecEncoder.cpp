#include "trimmer/SameCodecEncoder.h"

const AVCodec* SameCodecEncoder::allocate(const char* name, const AVCodecContext* dec, AVRational frameRate,
                                          AVRational sampleAspect, kavra::ScopedAVCodecContext* encoder,
                                          std::string* why) {
    const AVCodec* codec = avcodec_find_encoder_by_name(name);
    if (codec == nullptr) {
        *why = std::string("no encoder ") + name;
        return nullptr;
    }
    encoder->reset(avcodec_alloc_context3(codec));
    AVCodecContext* enc = encoder->get();
    if (enc == nullptr) {
        *why = "out of memory";
        return nullptr;
    }
    enc->width = dec->width;
    enc->height = dec->height;
    enc->pix_fmt = dec->pix_fmt;
    enc->time_base = av_inv_q(frameRate);
    enc->framerate = frameRate;
    enc->color_range = dec->color_range;
    enc->color_primaries = dec->color_primaries;
    enc->color_trc = dec->color_trc;
    enc->colorspace = dec->colorspace;
    enc->chroma_sample_location = dec->chroma_sample_location;
    if (sampleAspect.num > 0 && sampleAspect.den > 0) {
        enc->sample_aspect_ratio = sampleAspect;
    }
    enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    return codec;
}
