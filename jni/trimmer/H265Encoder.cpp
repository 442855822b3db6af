#include "trimmer/H265Encoder.h"

#include "trimmer/SameCodecEncoder.h"

#include <cstdio>

extern "C" {
#include <libavutil/opt.h>
}

namespace {

// x265's name for an HEVC profile, or null for one it is not asked to write.
const char* profileName(int profile) {
    switch (profile) {
    case FF_PROFILE_HEVC_MAIN: return "main";
    case FF_PROFILE_HEVC_MAIN_10: return "main10";
    default: return nullptr;
    }
}

// Constant quality a little finer than a phone's own encoder, so the
// re-encoded frames are hard to tell from the copied ones.
constexpr const char* kQuality = "12";

#if defined(__SANITIZE_THREAD__)
// Under ThreadSanitizer x265 encodes on the calling thread: its workers
// hand rows and frames over through atomics inside libx265 that the
// sanitizer cannot see, and none of this engine's code runs on them.
constexpr const char* kThreads = ":pools=none:frame-threads=1";
#else
constexpr const char* kThreads = "";
#endif

}  // namespace

int H265Encoder::open(const AVCodecContext* dec, const AVCodecParameters* input, AVRational frameRate,
                      AVRational sampleAspect, kavra::ScopedAVCodecContext* encoder, std::string* why) {
    const char* profile = profileName(input->profile);
    if (profile == nullptr) {
        *why = "HEVC profile " + std::to_string(input->profile) + " cannot be encoded";
        return -1;
    }
    const AVCodec* codec = SameCodecEncoder::allocate("libx265", dec, frameRate, sampleAspect, encoder, why);
    if (codec == nullptr) {
        return -1;
    }
    AVCodecContext* enc = encoder->get();
    av_opt_set(enc->priv_data, "preset", "veryfast", 0);
    av_opt_set(enc->priv_data, "profile", profile, 0);
    av_opt_set(enc->priv_data, "crf", kQuality, 0);
    // One key frame at the start of each run (a run never outlasts the
    // input's own interval between key frames), no B-frames, no SEI of the
    // encoder's own, the input's level.
    char params[192];
    snprintf(params, sizeof params,
             "log-level=error:keyint=-1:min-keyint=1:scenecut=0:open-gop=0:bframes=0:info=0:repeat-headers=0:"
             "level-idc=%d%s",
             input->level > 0 ? input->level / 3 : 0, kThreads);
    av_opt_set(enc->priv_data, "x265-params", params, 0);
    if (avcodec_open2(enc, codec, nullptr) < 0) {
        *why = "the HEVC encoder does not take these pictures";
        encoder->reset();
        return -1;
    }
    return 0;
}
