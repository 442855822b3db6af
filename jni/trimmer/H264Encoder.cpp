#include "trimmer/H264Encoder.h"

#include "trimmer/SameCodecEncoder.h"

#include <cstdio>

extern "C" {
#include <libavutil/opt.h>
}

namespace {

// x264's name for an H.264 profile, or null for one it cannot write.
const char* profileName(int profile) {
    switch (profile & ~FF_PROFILE_H264_CONSTRAINED) {
    case FF_PROFILE_H264_BASELINE: return "baseline";
    case FF_PROFILE_H264_MAIN: return "main";
    case FF_PROFILE_H264_HIGH: return "high";
    case FF_PROFILE_H264_HIGH_10: return "high10";
    case FF_PROFILE_H264_HIGH_422: return "high422";
    case FF_PROFILE_H264_HIGH_444_PREDICTIVE: return "high444";
    default: return nullptr;
    }
}

// Constant quality a little finer than a phone's own encoder, so the
// re-encoded frames are hard to tell from the copied ones.
constexpr const char* kQuality = "10";

}  // namespace

int H264Encoder::open(const AVCodecContext* dec, const AVCodecParameters* input, AVRational frameRate,
                      AVRational sampleAspect, int parameterSetId, kavra::ScopedAVCodecContext* encoder,
                      std::string* why) {
    const char* profile = profileName(input->profile);
    if (profile == nullptr) {
        *why = "H.264 profile " + std::to_string(input->profile) + " cannot be encoded";
        return -1;
    }
    const AVCodec* codec = SameCodecEncoder::allocate("libx264", dec, frameRate, sampleAspect, encoder, why);
    if (codec == nullptr) {
        return -1;
    }
    AVCodecContext* enc = encoder->get();
    enc->level = input->level;
    enc->max_b_frames = 0;
    // One key frame at the start of each run: a run never outlasts the
    // input's own interval between key frames.
    enc->gop_size = 1 << 30;
    av_opt_set(enc->priv_data, "preset", "superfast", 0);
    av_opt_set(enc->priv_data, "profile", profile, 0);
    av_opt_set(enc->priv_data, "crf", kQuality, 0);
    char params[96];
    snprintf(params, sizeof params, "sps-id=%d:scenecut=0", parameterSetId);
    av_opt_set(enc->priv_data, "x264-params", params, 0);
    if (avcodec_open2(enc, codec, nullptr) < 0) {
        *why = "the H.264 encoder does not take these pictures";
        encoder->reset();
        return -1;
    }
    return 0;
}
