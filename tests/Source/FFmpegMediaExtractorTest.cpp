// What the pipeline tests cannot show of the media extractor: bounds-checked
// stream look-ups and bad input. (Reading every packet, seeking to key
// frames, truncated data and an interrupted read are driven by the decoder
// and pipeline tests.)

#include <gtest/gtest.h>

#include "Common/FFmpegPtr.h"
#include "Source/FFmpegMediaExtractor.h"
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

// (Random bytes and a file without its header are the tool's probe errors.)
TEST(FFmpegMediaExtractorBadInput, MissingAndNullInputsDoNotOpen) {
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
}

}  // namespace
}  // namespace kavra::test
