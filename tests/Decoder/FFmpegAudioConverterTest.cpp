// Sample conversion into the converter's fixed output buffer. (Converting
// real decoded AAC sample for sample is the audio renderer test's check.)

#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavutil/samplefmt.h>
}

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

// A call never returns more than the buffer; an input the resampler cannot
// take is refused, and a change of input rebuilds it.
TEST(FFmpegAudioConverter, CapsEachCallAndRebuildsTheResamplerOnAnInputChange) {
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
    EXPECT_EQ(c.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, none.planes, 44100, 2, AV_SAMPLE_FMT_FLTP, 0), 12000 * 4);

    PlanarFloat in(4410, 0.5f);
    LogCapture log;
    EXPECT_EQ(c.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, in.planes, 44100, 2, AV_SAMPLE_FMT_NB + 5, 4410), -1);
    EXPECT_TRUE(log.contains("FFmpegAudioConverter", "SwrContext init error."));
    // The input rate halves: the resampler is rebuilt for 22.05 kHz, so the
    // same number of input samples now gives about twice as many out.
    int total = 0;
    for (int i = 0; i < 10; ++i) {
        int n = c.convert(out, 44100, 2, AV_SAMPLE_FMT_S16, in.planes, 22050, 2, AV_SAMPLE_FMT_FLTP, 4410);
        ASSERT_GE(n, 0);
        total += n / 4;
    }
    EXPECT_NEAR(total, 10 * 8820, 100);
}

}  // namespace
}  // namespace kavra::test
