#include "trimmer/Mpeg4Encoder.h"

extern "C" {
#include <libavutil/opt.h>
}

#include "trimmer/TrimLog.h"

namespace {
constexpr AVRational kEncoderTimeBase = {1, 30};
}

int Mpeg4Encoder::open(const AVCodecContext* decoder, AVRational sampleAspect, bool globalHeader,
                       kavra::ScopedAVCodecContext* encoder) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
    if (codec == nullptr) {
        ALOGV("Can not find encoder AV_CODEC_ID_MPEG4.....!  ");
        return -6;
    }
    encoder->reset(avcodec_alloc_context3(codec));
    if (!*encoder) {
        ALOGV("Failed to open encoder!  ");
        return -7;
    }
    AVCodecContext* enc = encoder->get();
    enc->codec_id = AV_CODEC_ID_MPEG4;
    enc->codec_type = AVMEDIA_TYPE_VIDEO;
    enc->pix_fmt = AV_PIX_FMT_YUV420P;
    enc->width = decoder->width;
    enc->height = decoder->height;
    enc->time_base = kEncoderTimeBase;
    enc->pkt_timebase = kEncoderTimeBase;
    enc->ticks_per_frame = 1;
    enc->bit_rate = 10000000;
    enc->gop_size = 30;
    enc->qmin = 3;
    enc->qmax = 5;
    enc->max_b_frames = 0;
    enc->thread_count = 6;
    if (sampleAspect.num > 0 && sampleAspect.den > 0) {
        enc->sample_aspect_ratio = sampleAspect;
    }
    if (globalHeader) {
        enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    // Options of other encoders; the MPEG-4 encoder has neither.
    av_opt_set(enc->priv_data, "preset", "slow", 0);
    av_opt_set(enc->priv_data, "tune", "zerolatency", 0);
    if (avcodec_open2(enc, codec, nullptr) < 0) {
        ALOGV("Failed to open encoder!  ");
        return -7;
    }
    return 0;
}
