// Planes conversion between pixel formats and sizes.

#include <gtest/gtest.h>

#include <vector>

extern "C" {
#include <libavutil/imgutils.h>
}

#include "Decoder/DecoderTestSupport.h"
#include "Decoder/FFmpegVideoConverter.h"
#include "support/FrameIndex.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

// Destination planes allocated once per geometry, as a renderer would.
struct Planes {
    uint8_t* data[4] = {nullptr, nullptr, nullptr, nullptr};
    int linesize[4] = {0, 0, 0, 0};
    Planes(int width, int height, AVPixelFormat format) {
        EXPECT_GE(av_image_alloc(data, linesize, width, height, format, 1), 0);
    }
    ~Planes() { av_freep(&data[0]); }
};

int convertFrame(FFmpegVideoConverter& c, const AVFrame* f, Planes& dst, int dstWidth, int dstHeight,
                 AVPixelFormat dstFormat) {
    return c.convert(dst.data, dstWidth, dstHeight, dstFormat, dst.linesize,
                     const_cast<const unsigned char**>(f->data), f->width, f->height, f->linesize, f->format, 0);
}

class FFmpegVideoConverterTest : public ::testing::Test {
protected:
    void SetUp() override {
        frames = referenceFrames(fixture("h264_aac.mp4"), AVMEDIA_TYPE_VIDEO, 3);
        ASSERT_EQ(frames.size(), 3u);
    }
    std::vector<ScopedAVFrame> frames;
};

TEST_F(FFmpegVideoConverterTest, ReusesItsContextWhileTheGeometryStaysAndFollowsChanges) {
    LogCapture log;
    FFmpegVideoConverter c;
    Planes rgba(320, 240, AV_PIX_FMT_RGBA);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(convertFrame(c, frames[i].get(), rgba, 320, 240, AV_PIX_FMT_RGBA), 240);
        EXPECT_EQ(frameIndexFromRgba(rgba.data[0], rgba.linesize[0], 320, 240), i);
    }
    const SwsContext* first = c.context();
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(convertFrame(c, frames[0].get(), rgba, 320, 240, AV_PIX_FMT_RGBA), 240);
    EXPECT_EQ(c.context(), first) << "same geometry must not rebuild the context";

    // Only the destination width changes: the result is still the
    // destination height and the picture is scaled, not cropped.
    Planes narrow(160, 240, AV_PIX_FMT_RGBA);
    ASSERT_EQ(convertFrame(c, frames[2].get(), narrow, 160, 240, AV_PIX_FMT_RGBA), 240);
    EXPECT_EQ(frameIndexFromRgba(narrow.data[0], narrow.linesize[0], 160, 240), 2);

    // Destination size and format change together.
    Planes small(64, 48, AV_PIX_FMT_YUV420P);
    ASSERT_EQ(convertFrame(c, frames[1].get(), small, 64, 48, AV_PIX_FMT_YUV420P), 48);
    EXPECT_EQ(frameIndexFromLuma(small.data[0], small.linesize[0], 64, 48), 1);

    // A different source format: the decoded picture turned into NV12
    // first, then converted back to RGBA at an odd size.
    Planes nv12(320, 240, AV_PIX_FMT_NV12);
    ASSERT_EQ(convertFrame(c, frames[2].get(), nv12, 320, 240, AV_PIX_FMT_NV12), 240);
    Planes odd(321, 241, AV_PIX_FMT_RGBA);
    ASSERT_EQ(c.convert(odd.data, 321, 241, AV_PIX_FMT_RGBA, odd.linesize,
                        const_cast<const unsigned char**>(nv12.data), 320, 240, nv12.linesize, AV_PIX_FMT_NV12, 0),
              241);
    EXPECT_EQ(frameIndexFromRgba(odd.data[0], odd.linesize[0], 321, 241), 2);

    // An impossible geometry is an error, and the next good call recovers.
    EXPECT_EQ(convertFrame(c, frames[0].get(), rgba, 0, 240, AV_PIX_FMT_RGBA), -1);
    EXPECT_TRUE(log.contains("FFmpegVideoConverter", "sws_getCachedContext error."));
    EXPECT_EQ(convertFrame(c, frames[0].get(), rgba, 320, 240, AV_PIX_FMT_RGBA), 240);
    EXPECT_EQ(frameIndexFromRgba(rgba.data[0], rgba.linesize[0], 320, 240), 0);
}

}  // namespace
}  // namespace kavra::test
