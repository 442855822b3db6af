// Reading, seeking and stream look-ups of the media extractor, and every
// kind of bad input.

#include <gtest/gtest.h>

#include <chrono>
#include <future>
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

TEST(FFmpegMediaExtractorRead, ReadsEveryPacketOfEveryStreamToTheEnd) {
    for (const char* name : {"h264_aac.mp4", "with_subtitle.mp4", "vp9.webm", "late_start.ts"}) {
        SCOPED_TRACE(name);
        Ffprobe probe(fixture(name), "-count_packets");
        auto extractor = open(name);
        std::map<int, int> packets;
        ScopedAVPacket pkt = makeScopedAVPacket();
        int reads = 0;
        while (extractor->readFrame(pkt.get()) == 0) {
            ASSERT_LT(++reads, 100000) << "never reached the end";
            ASSERT_GT(pkt->size, 0);
            packets[pkt->stream_index] += 1;
            av_packet_unref(pkt.get());
        }
        for (int i = 0; i < probe.streamCount(); ++i) {
            EXPECT_EQ(packets[i], probe.streamNumber(i, "nb_read_packets")) << "stream " << i;
        }
        EXPECT_EQ(extractor->readFrame(pkt.get()), -1) << "the end stays the end";
    }
}

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
        int64_t firstVideoPts = AV_NOPTS_VALUE;
        bool key = false;
        for (int i = 0; i < 50 && firstVideoPts == AV_NOPTS_VALUE; ++i) {
            ASSERT_EQ(extractor->readFrame(pkt.get()), 0);
            if (pkt->stream_index == video) {
                firstVideoPts = pkt->pts;
                key = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
            }
            av_packet_unref(pkt.get());
        }
        ASSERT_NE(firstVideoPts, AV_NOPTS_VALUE);
        EXPECT_TRUE(key);
        double seconds = firstVideoPts * av_q2d(stream->time_base);
        EXPECT_NEAR(seconds, (target / 1000) * 1.0, 0.001);
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
    const int n = extractor->mMediaInfo.streamNum;
    ASSERT_EQ(n, 3);
    EXPECT_EQ(extractor->getStream(-1), nullptr);
    EXPECT_EQ(extractor->getStream(n), nullptr);
    ASSERT_NE(extractor->getStream(n - 1), nullptr);
    EXPECT_EQ(extractor->getStream(0)->codecpar->codec_type, AVMEDIA_TYPE_VIDEO);

    // Asking for a track by index: the answer also becomes the best audio
    // stream, even when it is an error.
    EXPECT_EQ(extractor->getStreamIndex(AVMEDIA_TYPE_AUDIO, 2), 2);
    EXPECT_EQ(extractor->mMediaInfo.bestAudioStreamIndex, 2);
    int notAudio = extractor->getStreamIndex(AVMEDIA_TYPE_AUDIO, 0);
    EXPECT_LT(notAudio, 0);
    EXPECT_EQ(extractor->mMediaInfo.bestAudioStreamIndex, notAudio);
}

TEST(FFmpegMediaExtractorStreams, AudioOnlyFileHasNoVideo) {
    auto extractor = open("audio_only.m4a");
    EXPECT_EQ(extractor->mMediaInfo.bestVideoStreamIndex, -1);
    for (int i = 0; i < extractor->mMediaInfo.streamNum; ++i) {
        EXPECT_NE(extractor->mMediaInfo.streamInfos[i].mediaType, 0);
    }
}

TEST(FFmpegMediaExtractorBadInput, MissingFileAndNullPathAreLoggedErrors) {
    LogCapture log;
    FFmpegMediaExtractor extractor;
    const std::string missing = fixture("does_not_exist.mp4");
    int ret = extractor.setSource(missing.c_str());
    EXPECT_EQ(ret, AVERROR(ENOENT));
    EXPECT_TRUE(log.contains("FFmpegMediaExtractor",
                             "file:" + missing + ",setSource->avformat_open_input error:" + std::to_string(ret)));
    EXPECT_EQ(extractor.setSource(nullptr), -1);
    EXPECT_TRUE(log.contains("FFmpegMediaExtractor", "setSource->path is NULL"));
    EXPECT_EQ(extractor.getStream(0), nullptr);
    extractor.release();
    extractor.release();
}

TEST(FFmpegMediaExtractorBadInput, RandomBytesAndALostHeaderDoNotOpen) {
    for (const char* name : {"random.bin", "truncated_nomoov.mp4"}) {
        SCOPED_TRACE(name);
        FFmpegMediaExtractor extractor;
        int ret = extractor.setSource(fixture(name).c_str());
        if (ret == 0) {
            ret = extractor.findStreamInfo();
        }
        EXPECT_LT(ret, 0);
        ScopedAVPacket pkt = makeScopedAVPacket();
        EXPECT_EQ(extractor.readFrame(pkt.get()), ret == 0 ? 0 : -1);
    }
}

TEST(FFmpegMediaExtractorBadInput, TruncatedMediaDataReadsToAnEnd) {
    auto extractor = open("truncated.mp4");
    ScopedAVPacket pkt = makeScopedAVPacket();
    int reads = 0;
    int realPackets = 0;
    while (extractor->readFrame(pkt.get()) == 0) {
        ASSERT_LT(++reads, 100000) << "a truncated file must still end";
        realPackets += pkt->size > 0 ? 1 : 0;
        av_packet_unref(pkt.get());
    }
    EXPECT_GT(realPackets, 0);
    EXPECT_GE(extractor->seekFrame(1000, -1, AVSEEK_FLAG_BACKWARD), 0);
}

TEST(FFmpegMediaExtractorInterrupt, AnInterruptedInputStopsDeliveringPackets) {
    auto extractor = open("h264_aac.mp4");
    extractor->requestInterrupt();
    ScopedAVPacket pkt = makeScopedAVPacket();
    int delivered = 0;
    for (int i = 0; i < 1000; ++i) {
        if (extractor->readFrame(pkt.get()) != 0) {
            break;
        }
        delivered += pkt->size > 0 ? 1 : 0;
        av_packet_unref(pkt.get());
    }
    // Packets already buffered may still come; the file's 600 or so may not.
    EXPECT_LT(delivered, 100);
}

}  // namespace
}  // namespace kavra::test
