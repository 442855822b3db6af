// The H.264 decoder on the media codec port, where it differs from the
// software decoder: the codec-specific data, what goes into the codec and
// when the stream ends, creation failures and other pixel formats. (A
// picture size change is in the stream table of the decoder test.)

#include <gtest/gtest.h>

#include "Decoder/DecoderTestSupport.h"
#include "Decoder/MediaCodecVideoDecoder.h"
#include "Platform/FFmpegMediaCodec.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

// The parameter sets come out of the configuration record in Annex B form
// (that they are the right ones, every picture the decoder hands out shows),
// and a record cut short or lying about a length is refused, never read past.
TEST(MediaCodecVideoDecoderCsd, ParameterSetsComeFromTheirPlacesInTheRecord) {
    OpenedMedia media;
    ASSERT_TRUE(media.open(fixture("h264_aac.mp4")));
    const AVCodecParameters* par = media.stream(media.video)->codecpar;
    std::vector<uint8_t> csd0;
    std::vector<uint8_t> csd1;
    ASSERT_TRUE(MediaCodecVideoDecoder::parseCodecSpecificData(par->extradata, par->extradata_size, &csd0, &csd1));
    ASSERT_GT(csd0.size(), 4u);
    ASSERT_GT(csd1.size(), 4u);
    EXPECT_EQ(csd0[4] & 0x1F, 7) << "csd-0 must start with a sequence parameter set";
    EXPECT_EQ(csd1[4] & 0x1F, 8) << "csd-1 must start with a picture parameter set";
    // Every truncation of the record is refused rather than read past.
    int needed = 11 + (par->extradata[6] << 8 | par->extradata[7]);
    needed += par->extradata[needed - 2] << 8 | par->extradata[needed - 1];
    for (int size = 0; size < needed; ++size) {
        std::vector<uint8_t> cut(par->extradata, par->extradata + size);
        std::vector<uint8_t> a;
        std::vector<uint8_t> b;
        EXPECT_FALSE(MediaCodecVideoDecoder::parseCodecSpecificData(cut.data(), size, &a, &b)) << size;
        EXPECT_TRUE(a.empty() && b.empty());
    }
    // A length pointing far beyond the record.
    std::vector<uint8_t> lying(par->extradata, par->extradata + par->extradata_size);
    lying[6] = 0xFF;
    EXPECT_FALSE(MediaCodecVideoDecoder::parseCodecSpecificData(lying.data(), static_cast<int>(lying.size()), &csd0, &csd1));
}

// What the decoder did to its codec, as seen by SpyCodec.
struct CodecRecord {
    std::mutex mutex;
    struct Input {
        size_t size;
        uint64_t time;
        uint32_t flags;
    };
    std::vector<Input> inputs;
    // Inputs queued with more bytes than the buffer's capacity as reported.
    int overflows = 0;
    std::atomic<int> endOutputs{0};
};

// The Linux codec, observed: records what goes in and may pretend its
// input buffers are smaller, hide its end of stream, or fail to start.
class SpyCodec : public FFmpegMediaCodec {
public:
    SpyCodec(std::shared_ptr<CodecRecord> record) : FFmpegMediaCodec(AV_CODEC_ID_H264), mRecord(std::move(record)) {}
    size_t inputLimit = 0;
    bool hideEnd = false;
    int startResult = OK;

    int start() override { return startResult != OK ? startResult : FFmpegMediaCodec::start(); }
    uint8_t* getInputBuffer(size_t index, size_t* outSize) override {
        uint8_t* p = FFmpegMediaCodec::getInputBuffer(index, outSize);
        if (inputLimit > 0 && outSize != nullptr && *outSize > inputLimit) {
            *outSize = inputLimit;
        }
        return p;
    }
    int queueInputBuffer(size_t index, off_t offset, size_t size, uint64_t time, uint32_t flags) override {
        {
            std::lock_guard<std::mutex> lock(mRecord->mutex);
            mRecord->inputs.push_back({size, time, flags});
            mRecord->overflows += inputLimit > 0 && static_cast<size_t>(offset) + size > inputLimit ? 1 : 0;
        }
        return FFmpegMediaCodec::queueInputBuffer(index, offset, size, time, flags);
    }
    ssize_t dequeueOutputBuffer(MediaCodecBufferInfo* info, int64_t timeoutUs) override {
        ssize_t index = FFmpegMediaCodec::dequeueOutputBuffer(info, timeoutUs);
        if (index >= 0 && (info->flags & BUFFER_FLAG_END_OF_STREAM)) {
            mRecord->endOutputs += 1;
            if (hideEnd) {
                FFmpegMediaCodec::releaseOutputBuffer(static_cast<size_t>(index), false);
                return INFO_TRY_AGAIN_LATER;
            }
        }
        return index;
    }

private:
    std::shared_ptr<CodecRecord> mRecord;
};

// A decoder whose codec is a SpyCodec set up by `setup`.
MediaCodecVideoDecoder::CodecFactory spyFactory(std::shared_ptr<CodecRecord> record,
                                                std::function<void(SpyCodec&)> setup = nullptr) {
    return [record, setup](const char*) {
        std::unique_ptr<SpyCodec> codec(new SpyCodec(record));
        if (setup) {
            setup(*codec);
        }
        return std::unique_ptr<MediaCodec>(std::move(codec));
    };
}

// Decodes h264_aac.mp4 through a SpyCodec set up by `setup`, `alter`
// changing packets on the way in; `onEnd` runs when the end record is taken.
std::vector<DecodedFrame> decodeThroughSpy(std::shared_ptr<CodecRecord> record, std::function<void(SpyCodec&)> setup,
                                           std::function<void(int, AVPacket*)> alter = nullptr,
                                           std::function<void()> onEnd = nullptr) {
    OpenedMedia media;
    EXPECT_TRUE(media.open(fixture("h264_aac.mp4")));
    MediaCodecVideoDecoder decoder(spyFactory(record, setup));
    EXPECT_EQ(decoder.create(media.stream(media.video)), 0);
    OutputCollector out(decoder.getOutputQueue(), onEnd);
    out.start();
    EXPECT_EQ(decoder.start(), 0);
    EXPECT_EQ(feedStream(media.extractor, media.video, decoder, alter), 300);
    EXPECT_TRUE(out.waitForEnd(30000)) << "the stream must end";
    out.finish();
    return out.frames();
}

// Input buffers of 3000 bytes: key pictures do not fit, most others do. A
// packet that does not fit is dropped, never written past the buffer; a
// packet without a time goes in at the dts, without either at time zero;
// and the end record waits for the codec's own end of stream.
TEST(MediaCodecVideoDecoderInput, WhatGoesInAndWhenTheStreamEnds) {
    LogCapture log;
    auto record = std::make_shared<CodecRecord>();
    int64_t dtsOnly = 0;
    std::atomic<int> endOutputsAtRecord{-1};
    auto alter = [&](int n, AVPacket* pkt) {
        if (n == 5 || n == 6) {
            dtsOnly = pkt->dts;
            pkt->pts = AV_NOPTS_VALUE;
            pkt->dts = n == 5 ? AV_NOPTS_VALUE : pkt->dts;
        }
    };
    decodeThroughSpy(record, [](SpyCodec& c) { c.inputLimit = 3000; }, alter,
                     [&] { endOutputsAtRecord = record->endOutputs.load(); });
    EXPECT_EQ(endOutputsAtRecord.load(), 1) << "the end record came before the codec's end of stream";
    std::lock_guard<std::mutex> lock(record->mutex);
    ASSERT_EQ(record->inputs.size(), 301u) << "300 pictures and the end of the stream";
    EXPECT_EQ(record->inputs[5].time, 0u);
    EXPECT_EQ(static_cast<int64_t>(record->inputs[6].time), dtsOnly) << "without pts the dts stands in";
    EXPECT_EQ(record->inputs[0].flags, MediaCodec::BUFFER_FLAG_KEY_FRAME);
    EXPECT_EQ(record->inputs.back().flags, MediaCodec::BUFFER_FLAG_END_OF_STREAM);
    EXPECT_EQ(record->overflows, 0);
    int dropped = 0;
    for (const CodecRecord::Input& in : record->inputs) {
        dropped += in.size == 0 && in.flags != MediaCodec::BUFFER_FLAG_END_OF_STREAM ? 1 : 0;
    }
    EXPECT_GE(dropped, 10);
    EXPECT_EQ(dropped, log.count("MediaCodecVideoDecoder", "input buffer of 3000 bytes too small, packet dropped"));
}

TEST(MediaCodecVideoDecoderInput, ACodecThatNeverSignalsTheEndStillEndsTheStream) {
    LogCapture log;
    auto record = std::make_shared<CodecRecord>();
    std::vector<DecodedFrame> frames = decodeThroughSpy(record, [](SpyCodec& c) { c.hideEnd = true; });
    EXPECT_EQ(record->endOutputs.load(), 1);
    EXPECT_TRUE(log.contains("MediaCodecVideoDecoder", "no end of stream from the codec after 2000 ms, stream ended"));
    expectWholeVideo(frames, 300);
}

TEST(MediaCodecVideoDecoderCreate, FailuresAreRefusedAndReleased) {
    OpenedMedia media;
    ASSERT_TRUE(media.open(fixture("h264_aac.mp4")));
    AVStream* stream = media.stream(media.video);
    auto record = std::make_shared<CodecRecord>();
    MediaCodecVideoDecoder none;
    EXPECT_EQ(none.create(nullptr), -1);
    EXPECT_EQ(none.start(), -1);
    MediaCodecVideoDecoder noCodec([](const char*) { return std::unique_ptr<MediaCodec>(); });
    EXPECT_EQ(noCodec.create(stream), -1);
    MediaCodecVideoDecoder noStart(spyFactory(record, [](SpyCodec& c) { c.startResult = MediaCodec::ERROR_UNKNOWN; }));
    EXPECT_EQ(noStart.create(stream), 0);
    EXPECT_EQ(noStart.start(), -1);
    EXPECT_EQ(noStart.release(), 0);
    EXPECT_EQ(noStart.release(), 0);
    // Not H.264: the stream filter refuses it.
    OpenedMedia mpeg4;
    ASSERT_TRUE(mpeg4.open(fixture("mpeg4.mp4")));
    MediaCodecVideoDecoder notH264;
    EXPECT_LT(notH264.create(mpeg4.stream(mpeg4.video)), 0);
}

// A picture above the codec's size limit is refused with a clear error, and
// so is one that only the stream's parameter sets announce (the container
// understating it): no picture comes out, but the stream still ends.
TEST(MediaCodecVideoDecoderCreate, PicturesAboveTheSizeLimitAreRefused) {
    LogCapture log;
    OpenedMedia huge;
    ASSERT_TRUE(huge.open(fixture("h264_8192x8192.mp4")));
    AVStream* stream = huge.stream(huge.video);
    MediaCodecVideoDecoder announced;
    EXPECT_EQ(announced.create(stream), -1);
    EXPECT_TRUE(log.contains("FFmpegMediaCodec",
                             "configure->picture 8192x8192 is larger than the supported 8192x4352 pixels"));
    stream->codecpar->width = 320;
    stream->codecpar->height = 240;
    MediaCodecVideoDecoder understated;
    ASSERT_EQ(understated.create(stream), 0);
    OutputCollector out(understated.getOutputQueue());
    out.start();
    ASSERT_EQ(understated.start(), 0);
    EXPECT_EQ(feedStream(huge.extractor, huge.video, understated), 1);
    EXPECT_TRUE(out.waitForEnd(30000)) << "the stream must end";
    out.finish();
    EXPECT_TRUE(out.frames().empty());
}

// 4:2:2 pictures come out converted to planar 4:2:0 (the picture index is
// read from planar 4:2:0 only), every one in order.
TEST(MediaCodecVideoDecoderFormat, OtherPixelFormatsComeOutAsPlanar420) {
    MediaCodecVideoDecoder codec;
    expectWholeVideo(decodeStream(codec, fixture("h264_422.mp4"), 0), 60);
}

}  // namespace
}  // namespace kavra::test
