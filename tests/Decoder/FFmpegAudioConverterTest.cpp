// Sample conversion into the converter's fixed output buffer.

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

extern "C" {
#include <libavutil/samplefmt.h>
}

#include "Decoder/DecoderTestSupport.h"
#include "Decoder/FFmpegAudioConverter.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

// Planar float stereo of `samples` sample frames, every sample `value`.
struct PlanarFloat {
    std::vector<float> left, right;
    const unsigned char* planes[2];
    PlanarFloat(int samples, float value) : left(samples, value), right(samples, value) {
        planes[0] = reinterpret_cast<const unsigned char*>(left.data());
        planes[1] = reinterpret_cast<const unsigned char*>(right.data());
    }
};

TEST(FFmpegAudioConverter, DecodedAacBecomesInterleavedS16) {
    std::vector<ScopedAVFrame> frames = referenceFrames(fixture("h264_aac.mp4"), AVMEDIA_TYPE_AUDIO, 50);
    ASSERT_EQ(frames.size(), 50u);
    FFmpegAudioConverter c;
    long long bytes = 0;
    long long samples = 0;
    bool audible = false;
    for (const ScopedAVFrame& f : frames) {
        ASSERT_EQ(f->format, AV_SAMPLE_FMT_FLTP);
        unsigned char* out = nullptr;
        int n = c.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, const_cast<const unsigned char**>(f->extended_data),
                          f->sample_rate, f->ch_layout.nb_channels, f->format, f->nb_samples);
        ASSERT_GE(n, 0);
        ASSERT_NE(out, nullptr);
        bytes += n;
        samples += f->nb_samples;
        // Same rate and channels: every sample comes out at once and equals
        // the float sample scaled to 16 bits.
        ASSERT_EQ(n, f->nb_samples * 4);
        const int16_t* pcm = reinterpret_cast<const int16_t*>(out);
        const float* left = reinterpret_cast<const float*>(f->extended_data[0]);
        for (int i = 0; i < f->nb_samples; ++i) {
            ASSERT_NEAR(pcm[2 * i], left[i] * 32768.0f, 1.5f);
            audible = audible || pcm[2 * i] > 8000;
        }
    }
    EXPECT_EQ(bytes, samples * 4);
    EXPECT_TRUE(audible) << "the fixture's 1 kHz burst must come through";
}

TEST(FFmpegAudioConverter, OneCallNeverReturnsMoreThanTheBuffer) {
    FFmpegAudioConverter c;
    // 60000 stereo sample frames would be 240000 bytes of S16: the call is
    // capped at 192000 bytes (48000 sample frames); the rest stays queued in
    // the resampler and comes out with the next call.
    PlanarFloat big(60000, 0.25f);
    unsigned char* out = nullptr;
    EXPECT_EQ(c.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, big.planes, 44100, 2, AV_SAMPLE_FMT_FLTP, 60000),
              FFmpegAudioConverter::kOutBufferBytes);
    const int16_t* pcm = reinterpret_cast<const int16_t*>(out);
    EXPECT_EQ(pcm[0], 8192);
    EXPECT_EQ(pcm[2 * 47999 + 1], 8192);
    PlanarFloat none(0, 0.0f);
    EXPECT_EQ(c.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, none.planes, 44100, 2, AV_SAMPLE_FMT_FLTP, 0),
              12000 * 4);
    // Mono S16 output: two bytes a sample frame, so 96000 sample frames fit.
    FFmpegAudioConverter mono;
    PlanarFloat longer(100000, 0.5f);
    EXPECT_EQ(mono.convert(out, 44100, 1, AV_SAMPLE_FMT_S16, longer.planes, 44100, 2, AV_SAMPLE_FMT_FLTP, 100000),
              FFmpegAudioConverter::kOutBufferBytes);
}

TEST(FFmpegAudioConverter, OnlyAnInputChangeRebuildsTheResampler) {
    FFmpegAudioConverter c;
    PlanarFloat in(4410, 0.5f);
    unsigned char* out = nullptr;
    // 44.1 kHz in and out: as many samples out as in.
    EXPECT_EQ(c.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, in.planes, 44100, 2, AV_SAMPLE_FMT_FLTP, 4410), 4410 * 4);
    // An unusable input format fails; the next call recovers.
    {
        LogCapture log;
        EXPECT_EQ(c.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, in.planes, 44100, 2, AV_SAMPLE_FMT_NB + 5, 4410), -1);
        EXPECT_TRUE(log.contains("FFmpegAudioConverter", "SwrContext init error."));
    }

    // The input rate halves: the resampler is rebuilt for 22.05 kHz, so the
    // same number of input samples now gives about twice as many out.
    int total = 0;
    for (int i = 0; i < 10; ++i) {
        int n = c.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, in.planes, 22050, 2, AV_SAMPLE_FMT_FLTP, 4410);
        ASSERT_GE(n, 0);
        total += n / 4;
    }
    EXPECT_NEAR(total, 10 * 8820, 100);

    // Only the output rate changes: the context keeps the rates it was
    // built for (22.05 kHz to 44.1 kHz).
    const SwrContext* before = c.context();
    EXPECT_GE(c.convert(out, 11025, 2, AV_SAMPLE_FMT_S16, in.planes, 22050, 2, AV_SAMPLE_FMT_FLTP, 4410), 8000 * 4);
    EXPECT_EQ(c.context(), before);

    // A change of the input channel count rebuilds it as well: mono in,
    // stereo out, both channels carrying the mono signal.
    std::vector<float> mono(1000, 0.5f);
    const unsigned char* monoPlanes[1] = {reinterpret_cast<const unsigned char*>(mono.data())};
    FFmpegAudioConverter fresh;
    ASSERT_EQ(fresh.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, monoPlanes, 44100, 1, AV_SAMPLE_FMT_FLTP, 1000),
              1000 * 4);
    const int16_t* pcm = reinterpret_cast<const int16_t*>(out);
    EXPECT_NEAR(pcm[500 * 2], pcm[500 * 2 + 1], 1);
    EXPECT_GT(pcm[500 * 2], 8000);
}

}  // namespace
}  // namespace kavra::test
