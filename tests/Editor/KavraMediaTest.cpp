// The editor's synchronous reader: what it reports about each fixture, its
// failures, and audio decoding. Its video decoding (one picture per call,
// draining at the end, restarts after a seek) is what every editor item
// test runs through.

#include <gtest/gtest.h>

#include "EditorTestSupport.h"
#include "editor/KavraMedia.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

struct Facts {
    const char* name;
    int width;
    int height;
    int rotation;
    int mimeId;
};

class KavraMediaFacts : public ::testing::TestWithParam<Facts> {};

TEST_P(KavraMediaFacts, ReportsDisplaySizeRotationRateDurationAndCodec) {
    const Facts& f = GetParam();
    KavraMedia media;
    ASSERT_EQ(media.setSource(fixture(f.name).c_str()), 0);
    ASSERT_EQ(media.openVideoDecoder(false), 0);
    EXPECT_EQ(media.getWidth(), f.width);
    EXPECT_EQ(media.getHeight(), f.height);
    EXPECT_EQ(media.getRotation(), f.rotation);
    EXPECT_EQ(media.getVideoMimeID(), f.mimeId);
    EXPECT_EQ(media.getFrameRate(), 30);
    Ffprobe probe(fixture(f.name));
    EXPECT_EQ(media.getDuration(), static_cast<int>(std::llround(probe.number("format.duration") * 1000000) / 1000));
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, KavraMediaFacts,
    ::testing::Values(Facts{"h264_aac.mp4", 320, 240, 0, 28}, Facts{"h264_aac_rot90.mp4", 240, 320, 90, 28},
                      Facts{"mpeg4.mp4", 320, 240, 0, 13}, Facts{"hevc.mp4", 320, 240, 0, 0x48323635},
                      Facts{"vp9.webm", 320, 240, 0, 169}, Facts{"odd_size.mp4", 321, 241, 0, 13},
                      Facts{"late_start.ts", 320, 240, 0, 28},
                      // A "rotate" tag that is not a number reads as no rotation.
                      Facts{"bad_rotate.mkv", 320, 240, 0, 28}),
    FixtureName());

TEST(KavraMediaOpen, FailuresAreReportedAndLaterCallsAnswerSafely) {
    LogCapture log;
    {
        KavraMedia media;
        EXPECT_EQ(media.setSource(nullptr), -1);
        EXPECT_TRUE(log.contains("meeeKavraMedia", "setSource->path is NULL"));
    }
    {
        const std::string path = fixture("audio_only.m4a");
        KavraMedia media;
        ASSERT_EQ(media.setSource(path.c_str()), 0);
        EXPECT_EQ(media.openVideoDecoder(false), -1);
        EXPECT_TRUE(log.contains("meeeKavraMedia", "openVideoDecoder->no find video stream"));
        EXPECT_EQ(media.getAudioTrackCount(), 1);
        // The audio half works on the same file.
        EXPECT_EQ(media.openAudioDecoder(-1), -1);
        EXPECT_TRUE(log.contains("meeeKavraMedia", "openAudioDecoder->no find audio stream"));
        EXPECT_EQ(media.openAudioDecoder(0), 0);
        EXPECT_EQ(media.getSamplerate(), 44100);
        EXPECT_EQ(media.getChannels(), 2);
    }
    for (const char* name : {"random.bin", "truncated_nomoov.mp4"}) {
        SCOPED_TRACE(name);
        log.clear();
        const std::string path = fixture(name);
        KavraMedia media;
        int ret = media.setSource(path.c_str());
        EXPECT_LT(ret, 0);
        EXPECT_TRUE(log.contains("meeeKavraMedia",
                                 "file:" + path + ",setSource->avformat_open_input error:" + std::to_string(ret)));
        // Everything after a failed open answers without touching FFmpeg.
        EXPECT_EQ(media.openVideoDecoder(false), -1);
        EXPECT_EQ(media.prepare(), 0);
        ScopedAVPacket pkt = makeScopedAVPacket();
        EXPECT_LT(media.readFrame(pkt.get()), 0);
        int got = 1;
        EXPECT_LT(media.decodeVideo(&got, pkt.get()), 0);
        EXPECT_EQ(got, 0);
        EXPECT_EQ(media.getDuration(), 0);
    }
}

TEST(KavraMediaDecode, AudioDecodesThroughTheSameSteps) {
    KavraMedia media;
    ASSERT_EQ(media.setSource(fixture("h264_aac.mp4").c_str()), 0);
    ASSERT_EQ(media.openAudioDecoder(1), 0);
    ASSERT_EQ(media.prepare(), 0);
    EXPECT_EQ(media.getSamplerate(), 44100);
    ScopedAVPacket pkt = makeScopedAVPacket();
    int frames = 0;
    while (media.readFrame(pkt.get()) >= 0) {
        if (pkt->stream_index == 1) {
            int got = 0;
            EXPECT_GE(media.decodeAudio(&got, pkt.get()), 0);
            frames += got;
        }
        av_packet_unref(pkt.get());
    }
    for (int got = 1; got;) {
        EXPECT_GE(media.decodeAudio(&got, pkt.get()), 0);
        frames += got;
    }
    // 10 s of 1024-sample AAC frames at 44.1 kHz.
    EXPECT_NEAR(frames, 10 * 44100 / 1024, 3);
}

}  // namespace
}  // namespace kavra::test
