#include "trimmer/H264Encoder.h"

#include "trimmer/SameCodecEncoder.h"

#include <cstdio>

extern "C" {
#include <libavutil/opt.h>
}

namespace {

// How x264 writes an H.264 profile: its name for it, and the fastest
// settings whose stream still declares that profile. x264 declares the
// lowest profile its tools need: its fastest preset uses none beyond
// Constrained Baseline, so a High profile takes the 8x8 transform (CAVLC is
// fine there), and Main takes CABAC, which only a slower preset keeps
// affordable.
struct ProfileSettings {
    const char* name;
    const char* preset;
    const char* params;
};

const ProfileSettings* profileSettings(int profile) {
    static const ProfileSettings kBaseline{"baseline", "ultrafast", ""};
    static const ProfileSettings kMain{"main", "superfast", ""};
    static const ProfileSettings kHigh{"high", "ultrafast", ":8x8dct=1"};
    static const ProfileSettings kHigh10{"high10", "ultrafast", ":8x8dct=1"};
    static const ProfileSettings kHigh422{"high422", "ultrafast", ":8x8dct=1"};
    static const ProfileSettings kHigh444{"high444", "ultrafast", ":8x8dct=1"};
    switch (profile & ~FF_PROFILE_H264_CONSTRAINED) {
    case FF_PROFILE_H264_BASELINE: return &kBaseline;
    case FF_PROFILE_H264_MAIN: return &kMain;
    case FF_PROFILE_H264_HIGH: return &kHigh;
    case FF_PROFILE_H264_HIGH_10: return &kHigh10;
    case FF_PROFILE_H264_HIGH_422: return &kHigh422;
    case FF_PROFILE_H264_HIGH_444_PREDICTIVE: return &kHigh444;
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
    const ProfileSettings* profile = profileSettings(input->profile);
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
    av_opt_set(enc->priv_data, "preset", profile->preset, 0);
    av_opt_set(enc->priv_data, "profile", profile->name, 0);
    av_opt_set(enc->priv_data, "crf", kQuality, 0);
    char params[96];
    snprintf(params, sizeof params, "sps-id=%d:scenecut=0%s", parameterSetId, profile->params);
    av_opt_set(enc->priv_data, "x264-params", params, 0);
    if (avcodec_open2(enc, codec, nullptr) < 0) {
        *why = "the H.264 encoder does not take these pictures";
        encoder->reset();
        return -1;
    }
    return 0;
}
