// The software decoder: whole streams through its thread and queues, flush
// and seek, stop under back-pressure, damaged input, creation failures.

#include <gtest/gtest.h>

#include <future>

#include "Decoder/DecoderTestSupport.h"
#include "Decoder/FFmpegDecoder.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

struct StreamCase {
    const char* file;
    const char* kind;  // "v" or "a"
    int stream;        // -1: the best stream of the kind
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
    int expected = c.stream < 0 ? probeFrameCount(path, c.kind) : probeFrameCount(path, std::to_string(c.stream).c_str(), true);
    ASSERT_GT(expected, 0) << "ffprobe found no frames";

    OpenedMedia media;
    ASSERT_TRUE(media.open(path));
    int index = c.stream >= 0 ? c.stream : video ? media.video : media.audio;
    ASSERT_GE(index, 0);
    FFmpegDecoder decoder;
    ASSERT_EQ(decoder.create(media.stream(index)), 0);
    EXPECT_EQ(decoder.getMediaType(), video ? 0 : 1);
    ASSERT_EQ(decoder.getOutputQueue()->getCapacity(), 5);
    OutputCollector out(decoder.getOutputQueue());
    out.start();
    ASSERT_EQ(decoder.start(), 0);
    ASSERT_GT(feedStream(media.extractor, index, decoder), 0);
    ASSERT_TRUE(out.waitForEnd(60000)) << "no end-of-stream record";
    out.finish();
    EXPECT_EQ(out.afterEnd(), 0) << "nothing may follow the end-of-stream record";
    EXPECT_EQ(decoder.getFrameCount(), expected);
    std::vector<DecodedFrame> frames = out.frames();
    for (const DecodedFrame& f : frames) {
        ASSERT_EQ(f.type, 1) << "frames move by reference";
    }
    if (video) {
        expectWholeVideo(frames, expected, std::string(c.file) != "truncated.mp4");
        AVCodecParameters* par = media.stream(index)->codecpar;
        EXPECT_EQ(frames[0].width, par->width);
        EXPECT_EQ(frames[0].height, par->height);
    } else {
        ASSERT_EQ(static_cast<int>(frames.size()), expected);
        AVCodecParameters* par = media.stream(index)->codecpar;
        for (size_t i = 0; i < frames.size(); ++i) {
            const DecodedFrame& f = frames[i];
            ASSERT_EQ(f.sampleRate, par->sample_rate);
            ASSERT_EQ(f.channels, par->ch_layout.nb_channels);
            ASSERT_GT(f.nbSamples, 0);
            ASSERT_EQ(f.size, f.channels * f.nbSamples * av_get_bytes_per_sample(static_cast<AVSampleFormat>(f.format)));
            ASSERT_GT(f.durationMs, 0);
            if (i > 0) {
                ASSERT_GT(f.ptsMs, frames[i - 1].ptsMs) << "frame " << i;
                ASSERT_NEAR(frames[i - 1].durationMs, f.ptsMs - frames[i - 1].ptsMs, 1) << "frame " << i;
            }
        }
    }
    decoder.stop();
    decoder.release();
}

// One case per distinct stream: the other fixtures carry these same streams
// in another container.
INSTANTIATE_TEST_SUITE_P(
    Fixtures, FFmpegDecoderStream,
    ::testing::Values(StreamCase{"h264_aac.mp4", "v", -1}, StreamCase{"h264_aac.mp4", "a", -1},
                      StreamCase{"h264_crop.mp4", "v", -1}, StreamCase{"audio_only.m4a", "a", -1},
                      StreamCase{"two_audio.mp4", "a", -1}, StreamCase{"two_audio.mp4", "a", 2},
                      StreamCase{"mpeg4.mp4", "v", -1}, StreamCase{"mpeg4_bframes.mp4", "v", -1},
                      StreamCase{"hevc.mp4", "v", -1}, StreamCase{"vp9.webm", "v", -1},
                      StreamCase{"vp9.webm", "a", -1}, StreamCase{"odd_size.mp4", "v", -1},
                      StreamCase{"late_start.ts", "v", -1}, StreamCase{"late_start.ts", "a", -1},
                      StreamCase{"truncated.mp4", "v", -1}, StreamCase{"truncated.mp4", "a", -1},
                      // No packet carries a time: each frame follows the last.
                      StreamCase{"no_times.h264", "v", -1}),
    caseName);

}  // namespace
}  // namespace kavra::test

namespace kavra::test {
namespace {

class FFmpegDecoderVideo : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(media.open(fixture("h264_aac.mp4")));
        ASSERT_EQ(decoder.create(media.stream(media.video)), 0);
    }
    OpenedMedia media;
    FFmpegDecoder decoder;
};

TEST_F(FFmpegDecoderVideo, FlushThenSeekDeliversOnlyFramesOfTheNewPosition) {
    expectFlushThenSeek(decoder, media);
}

TEST_F(FFmpegDecoderVideo, AStreamFedAgainAfterItsEndDecodesAgain) {
    expectReplayAfterEnd(decoder, media);
}

TEST_F(FFmpegDecoderVideo, StopWhileBlockedOnAFullRingReturnsPromptly) {
    expectPromptStop(decoder, media);
}

TEST_F(FFmpegDecoderVideo, ADamagedPacketIsLoggedAndDecodingGoesOn) {
    LogCapture log;
    expectDamagedPacketLoggedAndSkipped(decoder, media, log, "FFmpegDecoder");
}

TEST_F(FFmpegDecoderVideo, CreateIsRefusedWhileTheThreadDecodes) {
    LogCapture log;
    OutputCollector out(decoder.getOutputQueue());
    out.start();
    ASSERT_EQ(decoder.start(), 0);
    ASSERT_EQ(feedStream(media.extractor, media.video, decoder, nullptr, 60), 60);
    ASSERT_TRUE(out.waitForFrames(10, 30000));
    EXPECT_EQ(decoder.create(media.stream(media.video)), -1);
    EXPECT_TRUE(log.contains("FFmpegDecoder", "create->decoder is running"));
    ASSERT_EQ(feedStream(media.extractor, media.video, decoder), 240);
    ASSERT_TRUE(out.waitForEnd(30000));
    out.finish();
    expectWholeVideo(out.frames(), 300);
}

TEST_F(FFmpegDecoderVideo, WithoutAnOutputQueueDecodeInnerStillDecodes) {
    FFmpegDecoder inner;
    ASSERT_EQ(inner.create(media.stream(media.video), 0, 0), 0);
    EXPECT_FALSE(inner.getOutputQueue()->isCreated());
    ScopedAVPacket pkt = makeScopedAVPacket();
    int packets = 0;
    while (media.extractor.readFrame(pkt.get()) == 0) {
        if (pkt->stream_index == media.video && pkt->size > 0) {
            EXPECT_EQ(inner.decodeInner(pkt.get()), pkt->size);
            packets += 1;
        }
        av_packet_unref(pkt.get());
    }
    EXPECT_EQ(inner.decodeInner(nullptr), 0) << "a null packet drains the codec";
    EXPECT_EQ(packets, 300);
    EXPECT_EQ(inner.getFrameCount(), 300) << "every frame is decoded, then dropped by the missing queue";
    inner.reset();
    EXPECT_EQ(inner.getFrameCount(), 0);
    EXPECT_EQ(inner.getMediaType(), -1);
    EXPECT_EQ(inner.getStatus(), DECODER_STATUS_IDLE);
}

TEST_F(FFmpegDecoderVideo, ReleaseIsRepeatableAndTheDecoderCanBeCreatedAgain) {
    ASSERT_EQ(decoder.start(), 0);
    decoder.stop();
    EXPECT_EQ(decoder.release(), 0);
    EXPECT_EQ(decoder.release(), 0);
    EXPECT_EQ(decoder.getStatus(), DECODER_STATUS_IDLE);
    EXPECT_EQ(decoder.getMediaType(), -1);
    EXPECT_FALSE(decoder.getOutputQueue()->isCreated());

    ASSERT_EQ(media.extractor.seekFrame(0, -1, AVSEEK_FLAG_BACKWARD), 0);
    ASSERT_EQ(decoder.create(media.stream(media.video)), 0);
    OutputCollector out(decoder.getOutputQueue());
    out.start();
    ASSERT_EQ(decoder.start(), 0);
    ASSERT_EQ(feedStream(media.extractor, media.video, decoder), 300);
    ASSERT_TRUE(out.waitForEnd(30000));
    out.finish();
    expectWholeVideo(out.frames(), 300);
}

TEST(FFmpegDecoderCreate, RefusesWhatItCannotDecode) {
    LogCapture log;
    FFmpegDecoder decoder;
    EXPECT_EQ(decoder.create(nullptr, 10, 0), -1);
    EXPECT_EQ(decoder.create(nullptr), -1);
    EXPECT_EQ(log.count("FFmpegDecoder", "create->pInStream is null."), 2);

    // A data stream: no decoder exists for it.
    ScopedAVOutputContext ctx(avformat_alloc_context());
    AVStream* data = avformat_new_stream(ctx.get(), nullptr);
    ASSERT_NE(data, nullptr);
    data->codecpar->codec_type = AVMEDIA_TYPE_DATA;
    data->codecpar->codec_id = AV_CODEC_ID_NONE;
    EXPECT_EQ(decoder.create(data), -1);
    EXPECT_TRUE(log.contains("FFmpegDecoder", "create->no find decoder for pInStream."));
    EXPECT_FALSE(decoder.getOutputQueue()->isCreated());
}

TEST(FFmpegDecoderCreate, PacketsOfOtherMediaAreIgnored) {
    // The subtitle stream opens (FFmpeg has a decoder for it), but only
    // video and audio packets are decoded: the end-of-stream record comes
    // out alone.
    OpenedMedia media;
    ASSERT_TRUE(media.open(fixture("with_subtitle.mp4")));
    FFmpegDecoder decoder;
    ASSERT_EQ(decoder.create(media.stream(2)), 0);
    EXPECT_EQ(decoder.getMediaType(), AVMEDIA_TYPE_SUBTITLE);
    OutputCollector out(decoder.getOutputQueue());
    out.start();
    ASSERT_EQ(decoder.start(), 0);
    EXPECT_GT(feedStream(media.extractor, 2, decoder), 0);
    ASSERT_TRUE(out.waitForEnd(10000));
    out.finish();
    EXPECT_TRUE(out.frames().empty());
    EXPECT_EQ(decoder.getFrameCount(), 0);
}

TEST(FFmpegDecoderAudio, ADamagedPacketIsLoggedAndDecodingGoesOn) {
    LogCapture log;
    OpenedMedia media;
    ASSERT_TRUE(media.open(fixture("audio_only.m4a")));
    FFmpegDecoder decoder;
    ASSERT_EQ(decoder.create(media.stream(media.audio)), 0);
    OutputCollector out(decoder.getOutputQueue());
    out.start();
    ASSERT_EQ(decoder.start(), 0);
    ASSERT_EQ(feedStream(media.extractor, media.audio, decoder,
                         [](int n, AVPacket* pkt) {
                             if (n == 100) {
                                 ASSERT_EQ(av_packet_make_writable(pkt), 0);
                                 memset(pkt->data, 0xFF, static_cast<size_t>(pkt->size));
                             }
                         }),
              432);
    ASSERT_TRUE(out.waitForEnd(30000));
    EXPECT_EQ(countPrefixed(log, "FFmpegDecoder", "decoder error:"), 1);
    EXPECT_EQ(out.frames().size(), 430u) << "only the damaged packet's frame is lost";
}

}  // namespace
}  // namespace kavra::test
