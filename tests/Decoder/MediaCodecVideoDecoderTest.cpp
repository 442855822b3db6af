// The H.264 decoder on the media codec port: whole streams, the same frames
// as the software decoder, flush and seek, stop, damaged input, the
// codec-specific data and the input-buffer bounds.

#include <gtest/gtest.h>

#include "Decoder/DecoderTestSupport.h"
#include "Decoder/FFmpegDecoder.h"
#include "Decoder/MediaCodecVideoDecoder.h"
#include "Platform/FFmpegMediaCodec.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

// Decodes the best video stream of a file to the end with either decoder.
std::vector<DecodedFrame> decodeVideo(Decoder& decoder, const std::string& path, int* fed = nullptr) {
    OpenedMedia media;
    EXPECT_TRUE(media.open(path));
    EXPECT_EQ(decoder.create(media.stream(media.video)), 0);
    OutputCollector out(decoder.getOutputQueue());
    out.start();
    EXPECT_EQ(decoder.start(), 0);
    int n = feedStream(media.extractor, media.video, decoder);
    if (fed != nullptr) {
        *fed = n;
    }
    EXPECT_TRUE(out.waitForEnd(60000)) << "no end-of-stream record";
    out.finish();
    EXPECT_EQ(out.afterEnd(), 0);
    decoder.stop();
    decoder.release();
    return out.frames();
}

class MediaCodecVideoDecoderStream : public ::testing::TestWithParam<const char*> {};

TEST_P(MediaCodecVideoDecoderStream, DeliversExactlyTheSoftwareDecodersFrames) {
    std::string path = fixture(GetParam());
    int expected = probeFrameCount(path, "v");
    ASSERT_GT(expected, 0);
    LogCapture log;
    MediaCodecVideoDecoder codec;
    std::vector<DecodedFrame> frames = decodeVideo(codec, path);
    expectWholeVideo(frames, expected, std::string(GetParam()) != "truncated.mp4");
    for (const DecodedFrame& f : frames) {
        ASSERT_EQ(f.type, 2) << "pictures are copied into the slots";
        ASSERT_EQ(f.format, AV_PIX_FMT_YUV420P);
    }
    EXPECT_EQ(log.count("MediaCodecVideoDecoder", "AMEDIACODEC_INFO_OUTPUT_FORMAT_CHANGED."), 1);

    FFmpegDecoder software;
    std::vector<DecodedFrame> reference = decodeVideo(software, path);
    ASSERT_EQ(frames.size(), reference.size());
    for (size_t i = 0; i < frames.size(); ++i) {
        ASSERT_EQ(frames[i].ptsMs, reference[i].ptsMs) << "frame " << i;
        ASSERT_EQ(frames[i].width, reference[i].width) << "frame " << i;
        ASSERT_EQ(frames[i].height, reference[i].height) << "frame " << i;
        ASSERT_EQ(frames[i].hash, reference[i].hash) << "pixels of frame " << i;
    }
}

// The other H.264 fixtures carry the same stream as h264_aac.mp4 in
// another container; these differ in the stream: parameter sets in band,
// data cut short, a cropped picture, no times.
INSTANTIATE_TEST_SUITE_P(H264Fixtures, MediaCodecVideoDecoderStream,
                         ::testing::Values("h264_aac.mp4", "late_start.ts", "truncated.mp4", "h264_crop.mp4",
                                           // No packet carries a time.
                                           "no_times.h264"),
                         FixtureName());

// What the decoder did to its codec, as seen by SpyCodec.
struct CodecRecord {
    std::mutex mutex;
    bool configured = false;
    bool hasCsd0 = false;
    bool hasCsd1 = false;
    std::vector<uint8_t> csd0;
    std::vector<uint8_t> csd1;
    // Every input buffer queued: size, time, flags.
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
// input buffers are smaller, or fail to configure or start.
class SpyCodec : public MediaCodec {
public:
    explicit SpyCodec(std::shared_ptr<CodecRecord> record) : mRecord(std::move(record)), mInner(AV_CODEC_ID_H264) {}
    size_t inputLimit = 0;
    // Swallows the end-of-stream buffer, as a codec that never sends one.
    bool hideEnd = false;
    int configureResult = OK;
    int startResult = OK;

    int configure(const MediaFormat* format, void* surface, void* crypto, uint32_t flags) override {
        {
            std::lock_guard<std::mutex> lock(mRecord->mutex);
            mRecord->configured = true;
            const void* data = nullptr;
            size_t size = 0;
            if ((mRecord->hasCsd0 = format->getBuffer(MediaFormat::KEY_CSD_0, &data, &size))) {
                mRecord->csd0.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
            }
            if ((mRecord->hasCsd1 = format->getBuffer(MediaFormat::KEY_CSD_1, &data, &size))) {
                mRecord->csd1.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
            }
        }
        if (configureResult != OK) {
            return configureResult;
        }
        return mInner.configure(format, surface, crypto, flags);
    }
    int start() override { return startResult != OK ? startResult : mInner.start(); }
    int stop() override { return mInner.stop(); }
    int flush() override { return mInner.flush(); }
    ssize_t dequeueInputBuffer(int64_t timeoutUs) override { return mInner.dequeueInputBuffer(timeoutUs); }
    uint8_t* getInputBuffer(size_t index, size_t* outSize) override {
        uint8_t* p = mInner.getInputBuffer(index, outSize);
        if (inputLimit > 0 && outSize != nullptr && *outSize > inputLimit) {
            *outSize = inputLimit;
        }
        return p;
    }
    int queueInputBuffer(size_t index, off_t offset, size_t size, uint64_t time, uint32_t flags) override {
        {
            std::lock_guard<std::mutex> lock(mRecord->mutex);
            mRecord->inputs.push_back({size, time, flags});
            if (inputLimit > 0 && static_cast<size_t>(offset) + size > inputLimit) {
                mRecord->overflows += 1;
            }
        }
        return mInner.queueInputBuffer(index, offset, size, time, flags);
    }
    ssize_t dequeueOutputBuffer(MediaCodecBufferInfo* info, int64_t timeoutUs) override {
        ssize_t index = mInner.dequeueOutputBuffer(info, timeoutUs);
        if (index >= 0 && (info->flags & BUFFER_FLAG_END_OF_STREAM)) {
            mRecord->endOutputs += 1;
            if (hideEnd) {
                mInner.releaseOutputBuffer(static_cast<size_t>(index), false);
                return INFO_TRY_AGAIN_LATER;
            }
        }
        return index;
    }
    uint8_t* getOutputBuffer(size_t index, size_t* outSize) override { return mInner.getOutputBuffer(index, outSize); }
    std::unique_ptr<MediaFormat> getOutputFormat() override { return mInner.getOutputFormat(); }
    int releaseOutputBuffer(size_t index, bool render) override { return mInner.releaseOutputBuffer(index, render); }

private:
    std::shared_ptr<CodecRecord> mRecord;
    FFmpegMediaCodec mInner;
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

class MediaCodecVideoDecoderVideo : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_TRUE(media.open(fixture("h264_aac.mp4")));
        ASSERT_EQ(decoder.create(media.stream(media.video)), 0);
    }
    OpenedMedia media;
    MediaCodecVideoDecoder decoder;
};

TEST_F(MediaCodecVideoDecoderVideo, FlushThenSeekDeliversOnlyFramesOfTheNewPosition) {
    expectFlushThenSeek(decoder, media);
}

TEST_F(MediaCodecVideoDecoderVideo, AStreamFedAgainAfterItsEndDecodesAgain) {
    expectReplayAfterEnd(decoder, media);
}

TEST_F(MediaCodecVideoDecoderVideo, StopWhileBlockedOnAFullRingReturnsPromptly) {
    expectPromptStop(decoder, media);
}

TEST_F(MediaCodecVideoDecoderVideo, NoSlotsUntilTheCodecAnnouncesItsFormat) {
    FrameBufferQueue* queue = decoder.getOutputQueue();
    ASSERT_EQ(decoder.start(), 0);
    EXPECT_FALSE(queue->isCreated());
    EXPECT_EQ(queue->dequeueOutputBufferIndex(20), -2) << "a consumer waits out its time-out";
    ASSERT_EQ(feedStream(media.extractor, media.video, decoder, nullptr, 10), 10);
    // The slots' geometry is read only after a frame was handed over, which
    // orders it after their creation on the decoding thread.
    int index = queue->dequeueOutputBufferIndex(5000);
    ASSERT_GE(index, 0);
    EXPECT_EQ(queue->getWidth(), 320);
    EXPECT_EQ(queue->getFormat(), AV_PIX_FMT_YUV420P);
    queue->releaseOutputBuffer();
}

TEST_F(MediaCodecVideoDecoderVideo, ADamagedPacketIsLoggedAndDecodingGoesOn) {
    LogCapture log;
    expectDamagedPacketLoggedAndSkipped(decoder, media, log, "MediaCodecVideoDecoder");
}

TEST(MediaCodecVideoDecoderCsd, ParameterSetsComeFromTheirPlacesInTheRecord) {
    OpenedMedia media;
    ASSERT_TRUE(media.open(fixture("h264_aac.mp4")));
    const AVCodecParameters* par = media.stream(media.video)->codecpar;
    std::vector<uint8_t> csd0;
    std::vector<uint8_t> csd1;
    ASSERT_TRUE(MediaCodecVideoDecoder::parseCodecSpecificData(par->extradata, par->extradata_size, &csd0, &csd1));

    // FFmpeg's own conversion of the record gives both sets in Annex B
    // form, one after the other.
    const AVBitStreamFilter* filter = av_bsf_get_by_name("h264_mp4toannexb");
    AVBSFContext* raw = nullptr;
    ASSERT_EQ(av_bsf_alloc(filter, &raw), 0);
    ScopedAVBSFContext bsf(raw);
    ASSERT_GE(avcodec_parameters_copy(bsf->par_in, par), 0);
    ASSERT_EQ(av_bsf_init(bsf.get()), 0);
    std::vector<uint8_t> annexB(bsf->par_out->extradata, bsf->par_out->extradata + bsf->par_out->extradata_size);
    std::vector<uint8_t> both = csd0;
    both.insert(both.end(), csd1.begin(), csd1.end());
    EXPECT_EQ(both, annexB);
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

TEST(MediaCodecVideoDecoderCsd, TheCodecIsConfiguredWithTheRecordsParameterSets) {
    auto record = std::make_shared<CodecRecord>();
    OpenedMedia media;
    ASSERT_TRUE(media.open(fixture("h264_aac.mp4")));
    const AVCodecParameters* par = media.stream(media.video)->codecpar;
    MediaCodecVideoDecoder decoder(spyFactory(record));
    ASSERT_EQ(decoder.create(media.stream(media.video)), 0);
    std::vector<uint8_t> csd0;
    std::vector<uint8_t> csd1;
    ASSERT_TRUE(MediaCodecVideoDecoder::parseCodecSpecificData(par->extradata, par->extradata_size, &csd0, &csd1));
    EXPECT_TRUE(record->hasCsd0 && record->hasCsd1);
    EXPECT_EQ(record->csd0, csd0);
    EXPECT_EQ(record->csd1, csd1);

    // An MPEG-TS stream carries its parameter sets in band: its extradata
    // is no configuration record, so no codec-specific data is set, and the
    // stream still decodes completely.
    auto tsRecord = std::make_shared<CodecRecord>();
    MediaCodecVideoDecoder ts(spyFactory(tsRecord));
    std::vector<DecodedFrame> frames = decodeVideo(ts, fixture("late_start.ts"));
    EXPECT_TRUE(tsRecord->configured);
    EXPECT_FALSE(tsRecord->hasCsd0 || tsRecord->hasCsd1);
    EXPECT_EQ(frames.size(), 300u);
}

// Decodes h264_aac.mp4 through a SpyCodec set up by `setup`, `alter`
// changing packets on the way in; `onEnd` runs when the end record is taken.
std::vector<DecodedFrame> decodeThroughSpy(std::shared_ptr<CodecRecord> record,
                                           std::function<void(SpyCodec&)> setup = nullptr,
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

TEST(MediaCodecVideoDecoderInput, APacketWithoutTimesGoesInAtTimeZero) {
    auto record = std::make_shared<CodecRecord>();
    int64_t dtsOnly = 0;
    decodeThroughSpy(record, nullptr, [&](int n, AVPacket* pkt) {
        if (n == 5) {
            pkt->pts = AV_NOPTS_VALUE;
            pkt->dts = AV_NOPTS_VALUE;
        } else if (n == 6) {
            pkt->pts = AV_NOPTS_VALUE;
            dtsOnly = pkt->dts;
        }
    });
    std::lock_guard<std::mutex> lock(record->mutex);
    ASSERT_EQ(record->inputs.size(), 301u) << "300 pictures and the end of the stream";
    EXPECT_EQ(record->inputs[5].time, 0u);
    EXPECT_EQ(static_cast<int64_t>(record->inputs[6].time), dtsOnly) << "without pts the dts stands in";
    EXPECT_EQ(record->inputs[0].flags, MediaCodec::BUFFER_FLAG_KEY_FRAME);
    EXPECT_EQ(record->inputs[1].flags, 0u);
    EXPECT_EQ(record->inputs.back().flags, MediaCodec::BUFFER_FLAG_END_OF_STREAM);
    EXPECT_EQ(record->inputs.back().size, 0u);
}

TEST(MediaCodecVideoDecoderInput, TheEndRecordFollowsTheCodecsEndOfStream) {
    auto record = std::make_shared<CodecRecord>();
    std::atomic<int> endOutputsAtRecord{-1};
    auto frames = decodeThroughSpy(record, nullptr, nullptr, [&] { endOutputsAtRecord = record->endOutputs.load(); });
    EXPECT_EQ(endOutputsAtRecord.load(), 1);
    EXPECT_EQ(frames.size(), 300u);
}

TEST(MediaCodecVideoDecoderInput, ACodecThatNeverSignalsTheEndStillEndsTheStream) {
    LogCapture log;
    auto record = std::make_shared<CodecRecord>();
    std::vector<DecodedFrame> frames = decodeThroughSpy(record, [](SpyCodec& c) { c.hideEnd = true; });
    EXPECT_EQ(record->endOutputs.load(), 1);
    EXPECT_TRUE(log.contains("MediaCodecVideoDecoder", "no end of stream from the codec after 2000 ms, stream ended"));
    expectWholeVideo(frames, 300);
}

TEST(MediaCodecVideoDecoderInput, NeverWritesMoreThanAnInputBufferHolds) {
    LogCapture log;
    auto record = std::make_shared<CodecRecord>();
    // Buffers of 3000 bytes: key pictures do not fit, most others do.
    decodeThroughSpy(record, [](SpyCodec& c) { c.inputLimit = 3000; });
    std::lock_guard<std::mutex> lock(record->mutex);
    EXPECT_EQ(record->overflows, 0);
    int dropped = 0;
    for (const CodecRecord::Input& in : record->inputs) {
        dropped += in.size == 0 && in.flags != MediaCodec::BUFFER_FLAG_END_OF_STREAM ? 1 : 0;
    }
    EXPECT_GE(dropped, 10);
    EXPECT_EQ(dropped, log.count("MediaCodecVideoDecoder", "input buffer of 3000 bytes too small, packet dropped"));
}

TEST(MediaCodecVideoDecoderCreate, FailuresAreReportedWithTheirMessages) {
    LogCapture log;
    OpenedMedia media;
    ASSERT_TRUE(media.open(fixture("h264_aac.mp4")));
    AVStream* stream = media.stream(media.video);
    {
        MediaCodecVideoDecoder decoder;
        EXPECT_EQ(decoder.create(nullptr), -1);
        EXPECT_EQ(decoder.start(), -1);
    }
    {
        MediaCodecVideoDecoder decoder([](const char*) { return std::unique_ptr<MediaCodec>(); });
        EXPECT_EQ(decoder.create(stream), -1);
        EXPECT_TRUE(log.contains("MediaCodecVideoDecoder", "create->AMediaCodec_createDecoderByType error"));
    }
    auto record = std::make_shared<CodecRecord>();
    {
        MediaCodecVideoDecoder decoder(
            spyFactory(record, [](SpyCodec& c) { c.configureResult = MediaCodec::ERROR_MALFORMED; }));
        EXPECT_EQ(decoder.create(stream), -1);
        EXPECT_TRUE(log.contains("MediaCodecVideoDecoder", "create->AMediaCodec_configure error"));
    }
    {
        MediaCodecVideoDecoder decoder(
            spyFactory(record, [](SpyCodec& c) { c.startResult = MediaCodec::ERROR_UNKNOWN; }));
        EXPECT_EQ(decoder.create(stream), 0);
        log.clear();
        EXPECT_EQ(decoder.start(), -1);
        EXPECT_TRUE(log.contains("MediaCodecVideoDecoder", "MediaCodec_start error"));
        EXPECT_EQ(decoder.release(), 0);
        EXPECT_EQ(decoder.release(), 0);
    }
    {
        // Not H.264: the stream filter refuses it.
        OpenedMedia mpeg4;
        ASSERT_TRUE(mpeg4.open(fixture("mpeg4.mp4")));
        MediaCodecVideoDecoder decoder;
        EXPECT_LT(decoder.create(mpeg4.stream(mpeg4.video)), 0);
        EXPECT_EQ(countPrefixed(log, "MediaCodecVideoDecoder", "create->av_bsf_init error:"), 1);
    }
}

// A raw H.264 stream whose picture grows after one second: a second format
// announcement replaces the slots by larger ones, and the pictures of both
// sizes come out, identical to the software decoder's.
TEST(MediaCodecVideoDecoderFormat, ASizeChangeReplacesTheSlots) {
    std::string dir = ::testing::TempDir() + "/kavra_size_change";
    ASSERT_EQ(runCommand("mkdir -p " + shellQuote(dir)).status, 0);
    std::string src = shellQuote(fixture("h264_aac.mp4"));
    std::string x264 = " -an -c:v libx264 -preset ultrafast -g 30 -bf 2 -threads 1 -f h264 ";
    ASSERT_EQ(runCommand("ffmpeg -v error -nostdin -y -i " + src + " -frames:v 30 -vf scale=160:120" + x264 +
                         shellQuote(dir + "/a.h264")).status,
              0);
    ASSERT_EQ(runCommand("ffmpeg -v error -nostdin -y -ss 1 -i " + src + " -frames:v 30" + x264 +
                         shellQuote(dir + "/b.h264")).status,
              0);
    std::string joined = dir + "/joined.h264";
    ASSERT_EQ(runCommand("cat " + shellQuote(dir + "/a.h264") + " " + shellQuote(dir + "/b.h264") + " > " +
                         shellQuote(joined)).status,
              0);
    LogCapture log;
    OpenedMedia media;
    ASSERT_TRUE(media.open(joined));
    MediaCodecVideoDecoder codec;
    ASSERT_EQ(codec.create(media.stream(media.video)), 0);
    OutputCollector out(codec.getOutputQueue());
    out.start();
    ASSERT_EQ(codec.start(), 0);
    ASSERT_EQ(feedStream(media.extractor, media.video, codec), 60);
    ASSERT_TRUE(out.waitForEnd(30000));
    out.finish();
    // Read after the end record was taken, which orders it after the
    // slots' last creation.
    EXPECT_EQ(codec.getOutputQueue()->getWidth(), 320);
    EXPECT_EQ(codec.getOutputQueue()->getHeight(), 240);
    EXPECT_EQ(log.count("MediaCodecVideoDecoder", "AMEDIACODEC_INFO_OUTPUT_FORMAT_CHANGED."), 2);
    EXPECT_TRUE(log.contains("MediaCodecVideoDecoder", "format-outWidth:160"));
    EXPECT_TRUE(log.contains("MediaCodecVideoDecoder", "format-outWidth:320"));
    std::vector<DecodedFrame> frames = out.frames();
    FFmpegDecoder software;
    std::vector<DecodedFrame> reference = decodeVideo(software, joined);
    ASSERT_EQ(frames.size(), 60u);
    ASSERT_EQ(reference.size(), 60u);
    for (size_t i = 0; i < frames.size(); ++i) {
        int width = i < 30 ? 160 : 320;
        ASSERT_EQ(frames[i].width, width) << "frame " << i;
        ASSERT_EQ(frames[i].index, static_cast<int>(i)) << "frame " << i;
        ASSERT_EQ(frames[i].hash, reference[i].hash) << "frame " << i;
    }
}

}  // namespace
}  // namespace kavra::test
