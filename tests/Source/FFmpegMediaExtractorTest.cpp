// Reading, seeking and stream look-ups of the media extractor, and bad input.

#include <gtest/gtest.h>

#include <map>

#include "Common/FFmpegPtr.h"
#include "Source/FFmpegMediaExtractor.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

std::unique_ptr<FFmpegMediaExtractor> open(const std::string& name) {
    auto extractor = std::make_unique<FFmpegMediaExtractor>();
    EXPECT_EQ(extractor->setSource(fixture(name).c_str()), 0);
    EXPECT_EQ(extractor->findStreamInfo(), 0);
    return extractor;
}

// Packets with data until the end (bounded, so a reader that never ends fails).
int readToEnd(FFmpegMediaExtractor& extractor, std::map<int, int>* perStream = nullptr) {
    ScopedAVPacket pkt = makeScopedAVPacket();
    int packets = 0;
    for (int reads = 0; extractor.readFrame(pkt.get()) == 0; ++reads) {
        if (reads > 100000) {
            ADD_FAILURE() << "never reached the end";
            break;
        }
        if (pkt->size > 0) {
            packets += 1;
            if (perStream != nullptr) {
                (*perStream)[pkt->stream_index] += 1;
            }
        }
        av_packet_unref(pkt.get());
    }
    return packets;
}

class FFmpegMediaExtractorRead : public ::testing::TestWithParam<const char*> {};

TEST_P(FFmpegMediaExtractorRead, EveryPacketOfEveryStreamToTheEnd) {
    Ffprobe probe(fixture(GetParam()), "-count_packets");
    auto extractor = open(GetParam());
    std::map<int, int> packets;
    readToEnd(*extractor, &packets);
    for (int i = 0; i < probe.streamCount(); ++i) {
        EXPECT_EQ(packets[i], probe.streamNumber(i, "nb_read_packets")) << "stream " << i;
    }
    ScopedAVPacket pkt = makeScopedAVPacket();
    EXPECT_EQ(extractor->readFrame(pkt.get()), -1) << "the end stays the end";
}

INSTANTIATE_TEST_SUITE_P(Fixtures, FFmpegMediaExtractorRead,
                         ::testing::Values("h264_aac.mp4", "with_subtitle.mp4", "vp9.webm", "late_start.ts"),
                         FixtureName());

TEST(FFmpegMediaExtractorSeek, LandsOnTheKeyFrameAtOrBeforeTheTarget) {
    auto extractor = open("h264_aac.mp4");
    const int video = extractor->mMediaInfo.bestVideoStreamIndex;
    AVStream* stream = extractor->getStream(video);
    ASSERT_NE(stream, nullptr);
    // Key frames fall on every whole second.
    for (int target : {3000, 5500, 0, 9999}) {
        SCOPED_TRACE(target);
        ASSERT_GE(extractor->seekFrame(target, -1, AVSEEK_FLAG_BACKWARD), 0);
        ScopedAVPacket pkt = makeScopedAVPacket();
        do {
            av_packet_unref(pkt.get());
            ASSERT_EQ(extractor->readFrame(pkt.get()), 0);
        } while (pkt->stream_index != video);
        EXPECT_TRUE(pkt->flags & AV_PKT_FLAG_KEY);
        EXPECT_NEAR(pkt->pts * av_q2d(stream->time_base), target / 1000, 0.001);
    }
}

TEST(FFmpegMediaExtractorStreams, LookUpsAreBoundsChecked) {
    FFmpegMediaExtractor closed;
    EXPECT_EQ(closed.getStream(0), nullptr);
    EXPECT_EQ(closed.getStreamIndex(AVMEDIA_TYPE_AUDIO, -1), -1);
    ScopedAVPacket pkt = makeScopedAVPacket();
    EXPECT_EQ(closed.readFrame(pkt.get()), -1);
    EXPECT_EQ(closed.findStreamInfo(), -1);

    auto extractor = open("two_audio.mp4");
    ASSERT_EQ(extractor->mMediaInfo.streamNum, 3);
    EXPECT_EQ(extractor->getStream(-1), nullptr);
    EXPECT_EQ(extractor->getStream(3), nullptr);
    EXPECT_NE(extractor->getStream(2), nullptr);
    // Asking for a track by index makes it the best audio stream.
    EXPECT_EQ(extractor->getStreamIndex(AVMEDIA_TYPE_AUDIO, 2), 2);
    EXPECT_EQ(extractor->mMediaInfo.bestAudioStreamIndex, 2);
    EXPECT_LT(extractor->getStreamIndex(AVMEDIA_TYPE_AUDIO, 0), 0) << "stream 0 is video";
}

TEST(FFmpegMediaExtractorBadInput, MissingNullRandomAndHeaderlessInputsDoNotOpen) {
    LogCapture log;
    FFmpegMediaExtractor extractor;
    const std::string missing = fixture("does_not_exist.mp4");
    int ret = extractor.setSource(missing.c_str());
    EXPECT_EQ(ret, AVERROR(ENOENT));
    EXPECT_TRUE(log.contains("FFmpegMediaExtractor",
                             "file:" + missing + ",setSource->avformat_open_input error:" + std::to_string(ret)));
    EXPECT_EQ(extractor.setSource(nullptr), -1);
    extractor.release();
    extractor.release();
    for (const char* name : {"random.bin", "truncated_nomoov.mp4"}) {
        FFmpegMediaExtractor bad;
        ret = bad.setSource(fixture(name).c_str());
        EXPECT_LT(ret == 0 ? bad.findStreamInfo() : ret, 0) << name;
    }
}

TEST(FFmpegMediaExtractorBadInput, TruncatedMediaDataReadsToAnEnd) {
    auto extractor = open("truncated.mp4");
    EXPECT_GT(readToEnd(*extractor), 0);
    EXPECT_GE(extractor->seekFrame(1000, -1, AVSEEK_FLAG_BACKWARD), 0);
}

TEST(FFmpegMediaExtractorInterrupt, AnInterruptedInputStopsDeliveringPackets) {
    auto extractor = open("h264_aac.mp4");
    extractor->requestInterrupt();
    // Packets already buffered may still come; the file's 600 or so may not.
    EXPECT_LT(readToEnd(*extractor), 100);
}

}  // namespace
}  // namespace kavra::test
