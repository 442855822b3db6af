// The decoders: whole streams through the software decoder's thread and
// queues, the H.264 ones through the media codec decoder too (which must
// hand out the very same pictures); what both video decoders promise a
// player (flush and seek, a stream fed again after its end, stop under
// back-pressure, a damaged packet); the software decoder's creation rules.

#include <gtest/gtest.h>

#include <cstring>

#include "Decoder/DecoderTestSupport.h"
#include "Decoder/FFmpegDecoder.h"
#include "Decoder/MediaCodecVideoDecoder.h"
#include "support/Ffprobe.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

struct StreamCase {
    const char* file;
    const char* kind;  // "v" or "a"
    int stream;        // -1: the best stream of the kind
    int formats;       // format announcements through the media codec decoder; 0: not tried there
};

std::string caseName(const ::testing::TestParamInfo<StreamCase>& info) {
    return testName(std::string(info.param.file) + "_" + info.param.kind +
                    (info.param.stream >= 0 ? std::to_string(info.param.stream) : ""));
}

class FFmpegDecoderStream : public ::testing::TestWithParam<StreamCase> {};

TEST_P(FFmpegDecoderStream, DecodesTheWholeStreamInOrder) {
    const StreamCase& c = GetParam();
    bool video = c.kind[0] == 'v';
    std::string path = fixture(c.file);
    // ffprobe counts the first stream of the kind, or the one asked for.
    int expected = probeFrameCount(path, c.stream < 0 ? std::string(c.kind) + ":0" : std::to_string(c.stream));
    ASSERT_GT(expected, 0) << "ffprobe found no frames";
    OpenedMedia media;
    ASSERT_TRUE(media.open(path));
    int index = c.stream >= 0 ? c.stream : video ? media.video : media.audio;
    ASSERT_GE(index, 0);
    const AVCodecParameters* par = media.stream(index)->codecpar;

    FFmpegDecoder decoder;
    std::vector<DecodedFrame> frames = decodeStream(decoder, path, index);
    EXPECT_EQ(decoder.getMediaType(), video ? 0 : 1);
    EXPECT_EQ(decoder.getFrameCount(), expected);
    for (const DecodedFrame& f : frames) {
        ASSERT_EQ(f.type, 1) << "frames move by reference";
    }
    if (video) {
        expectWholeVideo(frames, expected, std::string(c.file) != "truncated.mp4");
        EXPECT_EQ(frames[0].width, par->width);
        EXPECT_EQ(frames[0].height, par->height);
    } else {
        ASSERT_EQ(static_cast<int>(frames.size()), expected);
        for (size_t i = 0; i < frames.size(); ++i) {
            const DecodedFrame& f = frames[i];
            ASSERT_EQ(f.sampleRate, par->sample_rate);
            ASSERT_EQ(f.channels, par->ch_layout.nb_channels);
            ASSERT_EQ(f.size, f.channels * f.nbSamples * av_get_bytes_per_sample(static_cast<AVSampleFormat>(f.format)));
            ASSERT_GT(f.durationMs, 0);
            if (i > 0) {
                ASSERT_NEAR(frames[i - 1].durationMs, f.ptsMs - frames[i - 1].ptsMs, 1) << "frame " << i;
            }
        }
    }
    if (c.formats == 0) {
        return;
    }
    LogCapture log;
    MediaCodecVideoDecoder codec;
    std::vector<DecodedFrame> copied = decodeStream(codec, path, index);
    EXPECT_EQ(log.count("MediaCodecVideoDecoder", "AMEDIACODEC_INFO_OUTPUT_FORMAT_CHANGED."), c.formats);
    expectWholeVideo(copied, expected, std::string(c.file) != "truncated.mp4");
    ASSERT_EQ(copied.size(), frames.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        ASSERT_EQ(copied[i].type, 2) << "pictures are copied into the slots";
        ASSERT_EQ(copied[i].format, AV_PIX_FMT_YUV420P);
        ASSERT_EQ(copied[i].ptsMs, frames[i].ptsMs) << "frame " << i;
        ASSERT_EQ(copied[i].width, frames[i].width) << "frame " << i;
        ASSERT_EQ(copied[i].hash, frames[i].hash) << "pixels of frame " << i;
    }
}

// One case per distinct stream: the other fixtures carry these same streams
// in another container. The H.264 ones differ for the media codec: parameter
// sets in band, data cut short, a cropped picture, no times, and a picture
// that grows after one second (a second format announcement replaces the
// slots by larger ones).
INSTANTIATE_TEST_SUITE_P(
    Fixtures, FFmpegDecoderStream,
    ::testing::Values(StreamCase{"h264_aac.mp4", "v", -1, 1}, StreamCase{"h264_aac.mp4", "a", -1, 0},
                      StreamCase{"h264_crop.mp4", "v", -1, 1}, StreamCase{"audio_only.m4a", "a", -1, 0},
                      StreamCase{"two_audio.mp4", "a", -1, 0}, StreamCase{"two_audio.mp4", "a", 2, 0},
                      StreamCase{"mpeg4.mp4", "v", -1, 0}, StreamCase{"mpeg4_bframes.mp4", "v", -1, 0},
                      StreamCase{"hevc.mp4", "v", -1, 0}, StreamCase{"vp9.webm", "v", -1, 0},
                      StreamCase{"vp9.webm", "a", -1, 0}, StreamCase{"odd_size.mp4", "v", -1, 0},
                      StreamCase{"late_start.ts", "v", -1, 1}, StreamCase{"late_start.ts", "a", -1, 0},
                      StreamCase{"truncated.mp4", "v", -1, 1}, StreamCase{"truncated.mp4", "a", -1, 0},
                      // No packet carries a time: each frame follows the last.
                      StreamCase{"no_times.h264", "v", -1, 1}, StreamCase{"h264_size_change.h264", "v", -1, 2}),
    caseName);

// create() is refused while the thread decodes, and the decoder goes on;
// release() is repeatable and a released decoder is created and decodes
// again.
TEST(FFmpegDecoderCreate, RefusedWhileTheThreadDecodesAndRepeatableAfterRelease) {
    LogCapture log;
    OpenedMedia media;
    ASSERT_TRUE(media.open(fixture("short_h264_aac.mp4")));
    FFmpegDecoder decoder;
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(decoder.create(media.stream(media.video)), 0);
        OutputCollector out(decoder.getOutputQueue());
        out.start();
        ASSERT_EQ(decoder.start(), 0);
        ASSERT_EQ(feedStream(media.extractor, media.video, decoder, nullptr, 30), 30);
        ASSERT_TRUE(eventually([&] { return out.frames().size() >= 10; }, 30000));
        EXPECT_EQ(decoder.create(media.stream(media.video)), -1);
        EXPECT_TRUE(log.contains("FFmpegDecoder", "create->decoder is running"));
        ASSERT_EQ(feedStream(media.extractor, media.video, decoder), 30);
        ASSERT_TRUE(out.waitForEnd(30000));
        out.finish();
        expectWholeVideo(out.frames(), 60);
        decoder.stop();
        EXPECT_EQ(decoder.release(), 0);
        EXPECT_EQ(decoder.release(), 0);
        EXPECT_FALSE(decoder.getOutputQueue()->isCreated());
        ASSERT_EQ(media.extractor.seekFrame(0, -1, AVSEEK_FLAG_BACKWARD), 0);
    }
}

TEST(FFmpegDecoderCreate, RefusesWhatItCannotDecode) {
    FFmpegDecoder decoder;
    EXPECT_EQ(decoder.create(nullptr, 10, 0), -1);
    EXPECT_EQ(decoder.create(nullptr), -1);
    // A data stream: no decoder exists for it.
    ScopedAVOutputContext ctx(avformat_alloc_context());
    AVStream* data = avformat_new_stream(ctx.get(), nullptr);
    ASSERT_NE(data, nullptr);
    data->codecpar->codec_type = AVMEDIA_TYPE_DATA;
    data->codecpar->codec_id = AV_CODEC_ID_NONE;
    EXPECT_EQ(decoder.create(data), -1);
    EXPECT_FALSE(decoder.getOutputQueue()->isCreated());
}

struct DecoderKind {
    const char* name;
    const char* logTag;
    std::unique_ptr<Decoder> (*make)();
};

void PrintTo(const DecoderKind& kind, std::ostream* os) { *os << kind.name; }

const DecoderKind kSoftware{"Software", "FFmpegDecoder", [] { return std::unique_ptr<Decoder>(new FFmpegDecoder()); }};
const DecoderKind kMediaCodec{"MediaCodec", "MediaCodecVideoDecoder",
                              [] { return std::unique_ptr<Decoder>(new MediaCodecVideoDecoder()); }};

class VideoDecoder : public ::testing::TestWithParam<DecoderKind> {
protected:
    void SetUp() override {
        ASSERT_TRUE(media.open(fixture("h264_aac.mp4")));
        decoder = GetParam().make();
        ASSERT_EQ(decoder->create(media.stream(media.video)), 0);
        queue = decoder->getOutputQueue();
    }
    // The next record from the ring on this thread; its index, or -1 for the
    // end-of-stream record.
    int takeIndex() {
        int index = queue->dequeueOutputBufferIndex(10000);
        EXPECT_GE(index, 0) << "no frame came";
        if (index < 0) {
            return -2;
        }
        const FrameBuffer* b = queue->getBuffer(index);
        int shown = b->size == 0 ? -1 : describeFrame(b).index;
        queue->releaseOutputBuffer();
        return shown;
    }

    LogCapture log;
    OpenedMedia media;
    std::unique_ptr<Decoder> decoder;
    FrameBufferQueue* queue = nullptr;
};

// A seek as the player makes one: the decoder is blocked on a full ring
// with packets still queued, it is flushed, the extractor seeks to 5 s and
// feeding goes on. The first frame after the flush must be the key frame at
// 5 s (index 150) and every later one must follow it: no frame from before
// the flush may leak out.
TEST_P(VideoDecoder, FlushThenSeekDeliversOnlyFramesOfTheNewPosition) {
    ASSERT_EQ(decoder->start(), 0);
    ASSERT_EQ(feedStream(media.extractor, media.video, *decoder, nullptr, 60), 60);
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(takeIndex(), i);
    }
    ASSERT_TRUE(eventually([&] { return queue->getSize() == 5; }, 10000)) << "the ring never filled again";
    EXPECT_EQ(decoder->flush(), 0);
    ASSERT_GE(media.extractor.seekFrame(5000, -1, AVSEEK_FLAG_BACKWARD), 0);
    ASSERT_GT(feedStream(media.extractor, media.video, *decoder), 0);
    for (int expected = 150; expected < 300; ++expected) {
        ASSERT_EQ(takeIndex(), expected);
    }
    EXPECT_EQ(takeIndex(), -1) << "the end-of-stream record follows the last frame";
}

// After the end of the stream, the same packets fed again (the extractor
// rewound, no flush in between, as a restart from the beginning does)
// decode completely once more.
TEST_P(VideoDecoder, AStreamFedAgainAfterItsEndDecodesAgain) {
    OutputCollector out(queue);
    out.start();
    ASSERT_EQ(decoder->start(), 0);
    ASSERT_EQ(feedStream(media.extractor, media.video, *decoder), 300);
    ASSERT_TRUE(out.waitForEnd(30000));
    ASSERT_GE(media.extractor.seekFrame(0, -1, AVSEEK_FLAG_BACKWARD), 0);
    ASSERT_EQ(feedStream(media.extractor, media.video, *decoder), 300);
    ASSERT_TRUE(out.waitForEnd(30000, 2)) << "no second end-of-stream record";
    out.finish();
    std::vector<DecodedFrame> frames = out.frames();
    ASSERT_EQ(frames.size(), 600u);
    for (size_t i = 0; i < frames.size(); ++i) {
        ASSERT_EQ(frames[i].index, static_cast<int>(i % 300)) << "frame " << i;
    }
}

// A packet damaged in the middle of the stream (packet 45 in decode order,
// a reference picture of the second group of pictures; its first four bytes
// make a NAL unit longer than the packet) is logged as "decoder error:%d"
// and decoding goes on to the last frame.
TEST_P(VideoDecoder, ADamagedPacketIsLoggedAndDecodingGoesOn) {
    OutputCollector out(queue);
    out.start();
    ASSERT_EQ(decoder->start(), 0);
    auto damage = [](int n, AVPacket* pkt) {
        if (n == 45) {
            ASSERT_EQ(av_packet_make_writable(pkt), 0);
            memset(pkt->data, 0xFF, 4);
        }
    };
    ASSERT_EQ(feedStream(media.extractor, media.video, *decoder, damage), 300);
    ASSERT_TRUE(out.waitForEnd(30000));
    EXPECT_TRUE(log.contains(GetParam().logTag, "decoder error:" + std::to_string(AVERROR_INVALIDDATA)));
    std::vector<DecodedFrame> frames = out.frames();
    ASSERT_GE(frames.size(), 290u);
    EXPECT_EQ(frames.front().index, 0);
    EXPECT_EQ(frames.back().index, 299) << "decoding must go on to the end";
}

INSTANTIATE_TEST_SUITE_P(BothDecoders, VideoDecoder, ::testing::Values(kSoftware, kMediaCodec),
                         [](const ::testing::TestParamInfo<DecoderKind>& info) { return info.param.name; });

}  // namespace
}  // namespace kavra::test
