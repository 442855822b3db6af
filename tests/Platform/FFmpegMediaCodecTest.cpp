// The Linux media codec: the parts of the buffer-queue contract over
// FFmpeg's H.264 decoder that the decoder built on it never shows (held
// outputs, calls out of order, the size limit, a waiting client). Whole
// streams through it are compared picture by picture with the software
// decoder in the decoder tests.

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <future>

#include "Decoder/DecoderTestSupport.h"
#include "Decoder/MediaCodecVideoDecoder.h"
#include "Platform/FFmpegMediaCodec.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 240;

// An H.264 fixture's video as the codec wants it: Annex B pictures without
// in-band parameter sets (each four-byte length replaced by a start code),
// in decode order, and the parameter sets as codec-specific data.
struct AnnexBStream {
    std::vector<std::vector<uint8_t>> pictures;
    std::vector<int64_t> pts;
    std::vector<bool> key;
    std::vector<uint8_t> csd0;
    std::vector<uint8_t> csd1;

    explicit AnnexBStream(const char* name) {
        OpenedMedia media;
        EXPECT_TRUE(media.open(fixture(name)));
        const AVCodecParameters* par = media.stream(media.video)->codecpar;
        EXPECT_TRUE(MediaCodecVideoDecoder::parseCodecSpecificData(par->extradata, par->extradata_size, &csd0, &csd1));
        EXPECT_EQ(par->extradata[4] & 3, 3) << "four-byte NAL lengths";
        ScopedAVPacket pkt = makeScopedAVPacket();
        while (media.extractor.readFrame(pkt.get()) == 0) {
            if (pkt->stream_index == media.video && pkt->size > 0) {
                std::vector<uint8_t> bytes(pkt->data, pkt->data + pkt->size);
                for (size_t at = 0; at + 4 <= bytes.size();) {
                    size_t n = static_cast<size_t>(bytes[at]) << 24 | bytes[at + 1] << 16 | bytes[at + 2] << 8 |
                               bytes[at + 3];
                    bytes[at] = 0;
                    bytes[at + 1] = 0;
                    bytes[at + 2] = 0;
                    bytes[at + 3] = 1;
                    at += 4 + n;
                }
                pictures.push_back(std::move(bytes));
                pts.push_back(pkt->pts);
                key.push_back((pkt->flags & AV_PKT_FLAG_KEY) != 0);
            }
            av_packet_unref(pkt.get());
        }
    }
};

const AnnexBStream& stream() {
    static AnnexBStream s("h264_aac.mp4");
    return s;
}

MediaFormat videoFormat(bool withCsd, const AnnexBStream& s = stream()) {
    MediaFormat f;
    f.setString(MediaFormat::KEY_MIME, "video/avc");
    f.setInt32(MediaFormat::KEY_WIDTH, kWidth);
    f.setInt32(MediaFormat::KEY_HEIGHT, kHeight);
    f.setInt32(MediaFormat::KEY_FRAME_RATE, 30);
    f.setInt32(MediaFormat::KEY_COLOR_FORMAT, MediaCodec::COLOR_FormatYUV420Planar);
    if (withCsd) {
        f.setBuffer(MediaFormat::KEY_CSD_0, s.csd0.data(), s.csd0.size());
        f.setBuffer(MediaFormat::KEY_CSD_1, s.csd1.data(), s.csd1.size());
    }
    return f;
}

struct Output {
    int64_t pts;
    uint32_t flags;
    int32_t size;
    int index;  // drawn into the picture
};

// Drives a codec from one thread as a decoder thread would: queue a picture
// whenever an input buffer is free, take every output that is ready, give
// each output back at once. Records what comes out.
struct Driver {
    MediaCodec& codec;
    std::vector<Output> outputs;
    bool ended = false;
    // Layout of the pictures, from the last format announced.
    int stride = 0;
    int sliceHeight = 0;

    explicit Driver(MediaCodec& c) : codec(c) {}

    bool queue(const std::vector<uint8_t>& bytes, int64_t pts, uint32_t flags) {
        for (int attempt = 0; attempt < 500; ++attempt) {
            ssize_t index = codec.dequeueInputBuffer(10000);
            if (index >= 0) {
                size_t capacity = 0;
                uint8_t* data = codec.getInputBuffer(static_cast<size_t>(index), &capacity);
                EXPECT_NE(data, nullptr);
                EXPECT_GE(capacity, bytes.size());
                std::copy(bytes.begin(), bytes.end(), data);
                EXPECT_EQ(codec.queueInputBuffer(static_cast<size_t>(index), 0, bytes.size(),
                                                 static_cast<uint64_t>(pts), flags),
                          MediaCodec::OK);
                return true;
            }
            poll(0);
        }
        return false;
    }

    // Takes what is ready; returns false when nothing was.
    bool poll(int64_t timeoutUs) {
        MediaCodecBufferInfo info;
        ssize_t index = codec.dequeueOutputBuffer(&info, timeoutUs);
        if (index == MediaCodec::INFO_OUTPUT_FORMAT_CHANGED) {
            std::unique_ptr<MediaFormat> format = codec.getOutputFormat();
            EXPECT_TRUE(format->getInt32(MediaFormat::KEY_STRIDE, &stride));
            EXPECT_TRUE(format->getInt32(MediaFormat::KEY_SLICE_HEIGHT, &sliceHeight));
            return true;
        }
        if (index < 0) {
            return false;
        }
        size_t capacity = 0;
        const uint8_t* data = codec.getOutputBuffer(static_cast<size_t>(index), &capacity);
        EXPECT_NE(data, nullptr);
        Output o{info.presentationTimeUs, info.flags, info.size, -1};
        if (info.size > 0 && data != nullptr) {
            EXPECT_GE(capacity, static_cast<size_t>(info.size));
            o.index = frameIndexFromLuma(data, stride, kWidth, kHeight);
        }
        if (info.flags & MediaCodec::BUFFER_FLAG_END_OF_STREAM) {
            ended = true;
        }
        outputs.push_back(o);
        EXPECT_EQ(codec.releaseOutputBuffer(static_cast<size_t>(index), info.size > 0), MediaCodec::OK);
        return true;
    }

    void finish() {
        std::vector<uint8_t> none;
        ASSERT_TRUE(queue(none, 0, MediaCodec::BUFFER_FLAG_END_OF_STREAM));
        for (int i = 0; i < 2000 && !ended; ++i) {
            poll(10000);
        }
        ASSERT_TRUE(ended) << "no end-of-stream output";
    }
};

std::unique_ptr<MediaCodec> startedCodec(bool withCsd, const AnnexBStream& s = stream()) {
    std::unique_ptr<MediaCodec> codec = MediaCodec::createDecoderByType("video/avc");
    EXPECT_NE(codec, nullptr);
    MediaFormat format = videoFormat(withCsd, s);
    EXPECT_EQ(codec->configure(&format, nullptr, nullptr, 0), MediaCodec::OK);
    EXPECT_EQ(codec->start(), MediaCodec::OK);
    return codec;
}

// Feeding goes on while every output is kept, until the codec has handed
// out all its output buffers (bounded by an overall deadline); then nothing
// more comes out, and a flush voids the indices handed out and returns them.
TEST(FFmpegMediaCodec, HeldOutputsStallItAndAFlushReturnsEverything) {
    const AnnexBStream& s = stream();
    std::unique_ptr<MediaCodec> codec = startedCodec(true);
    std::vector<ssize_t> held;
    size_t next = 0;
    MediaCodecBufferInfo info;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (held.size() < static_cast<size_t>(FFmpegMediaCodec::kOutputBuffers) && next < s.pictures.size() &&
           std::chrono::steady_clock::now() < deadline) {
        ssize_t in = codec->dequeueInputBuffer(10000);
        if (in >= 0) {
            size_t capacity = 0;
            uint8_t* data = codec->getInputBuffer(static_cast<size_t>(in), &capacity);
            ASSERT_NE(data, nullptr);
            std::copy(s.pictures[next].begin(), s.pictures[next].end(), data);
            ASSERT_EQ(codec->queueInputBuffer(static_cast<size_t>(in), 0, s.pictures[next].size(),
                                              static_cast<uint64_t>(s.pts[next]), 0),
                      MediaCodec::OK);
            next += 1;
        }
        ssize_t out = codec->dequeueOutputBuffer(&info, 10000);
        if (out >= 0) {
            held.push_back(out);
        }
    }
    ASSERT_EQ(held.size(), static_cast<size_t>(FFmpegMediaCodec::kOutputBuffers)) << "the pool was never handed out";
    EXPECT_EQ(codec->dequeueOutputBuffer(&info, 20000), MediaCodec::INFO_TRY_AGAIN_LATER) << "an output beyond the pool";

    EXPECT_EQ(codec->flush(), MediaCodec::OK);
    EXPECT_EQ(codec->releaseOutputBuffer(static_cast<size_t>(held[0]), false), MediaCodec::ERROR_INVALID_PARAMETER)
        << "indices handed out before a flush are void";
    EXPECT_EQ(codec->dequeueOutputBuffer(&info, 0), MediaCodec::INFO_TRY_AGAIN_LATER) << "nothing stale comes out";
    // Decoding resumes at the key picture of the sixth second.
    const size_t key = 150;
    ASSERT_TRUE(s.key[key]);
    Driver d(*codec);
    for (size_t i = key; i < key + 30; ++i) {
        ASSERT_TRUE(d.queue(s.pictures[i], s.pts[i], 0));
        d.poll(0);
    }
    d.finish();
    ASSERT_EQ(d.outputs.size(), 31u);
    for (size_t i = 0; i < 30; ++i) {
        EXPECT_EQ(d.outputs[i].index, static_cast<int>(key + i));
    }
}

TEST(FFmpegMediaCodec, RefusesCallsOutOfOrderAndBadArguments) {
    EXPECT_EQ(MediaCodec::createDecoderByType("video/hevc"), nullptr);
    EXPECT_EQ(MediaCodec::createDecoderByType(nullptr), nullptr);
    std::unique_ptr<MediaCodec> codec = MediaCodec::createDecoderByType("video/avc");
    ASSERT_NE(codec, nullptr);
    MediaCodecBufferInfo info;
    EXPECT_EQ(codec->start(), MediaCodec::ERROR_INVALID_OPERATION) << "not configured";
    EXPECT_EQ(codec->dequeueInputBuffer(0), MediaCodec::ERROR_INVALID_OPERATION);
    EXPECT_EQ(codec->dequeueOutputBuffer(&info, 0), MediaCodec::ERROR_INVALID_OPERATION);
    EXPECT_EQ(codec->flush(), MediaCodec::ERROR_INVALID_OPERATION);

    MediaFormat other = videoFormat(true);
    other.setString(MediaFormat::KEY_MIME, "video/hevc");
    EXPECT_EQ(codec->configure(&other, nullptr, nullptr, 0), MediaCodec::ERROR_UNSUPPORTED);
    MediaFormat semiPlanar = videoFormat(true);
    semiPlanar.setInt32(MediaFormat::KEY_COLOR_FORMAT, 21);
    EXPECT_EQ(codec->configure(&semiPlanar, nullptr, nullptr, 0), MediaCodec::ERROR_UNSUPPORTED);
    MediaFormat format = videoFormat(true);
    EXPECT_EQ(codec->configure(&format, nullptr, nullptr, 1), MediaCodec::ERROR_UNSUPPORTED) << "no encoding";
    ASSERT_EQ(codec->configure(&format, nullptr, nullptr, 0), MediaCodec::OK);
    EXPECT_EQ(codec->configure(&format, nullptr, nullptr, 0), MediaCodec::ERROR_INVALID_OPERATION);
    ASSERT_EQ(codec->start(), MediaCodec::OK);

    size_t capacity = 0;
    EXPECT_EQ(codec->getInputBuffer(0, &capacity), nullptr) << "not dequeued";
    EXPECT_EQ(codec->getOutputBuffer(0, &capacity), nullptr);
    EXPECT_EQ(codec->releaseOutputBuffer(0, false), MediaCodec::ERROR_INVALID_PARAMETER);
    ssize_t index = codec->dequeueInputBuffer(0);
    ASSERT_GE(index, 0);
    ASSERT_NE(codec->getInputBuffer(static_cast<size_t>(index), &capacity), nullptr);
    EXPECT_GE(capacity, FFmpegMediaCodec::kMinInputBytes);
    EXPECT_EQ(codec->queueInputBuffer(static_cast<size_t>(index), 0, capacity + 1, 0, 0),
              MediaCodec::ERROR_INVALID_PARAMETER);
    EXPECT_EQ(codec->queueInputBuffer(static_cast<size_t>(index), 8, capacity - 4, 0, 0),
              MediaCodec::ERROR_INVALID_PARAMETER);
    EXPECT_EQ(codec->queueInputBuffer(static_cast<size_t>(index), 0, 0, 0, 0), MediaCodec::OK);
    EXPECT_EQ(codec->queueInputBuffer(static_cast<size_t>(index), 0, 0, 0, 0), MediaCodec::ERROR_INVALID_PARAMETER)
        << "already queued";
    // Every input buffer can be taken (the empty one just queued comes back
    // once the codec has taken it); then none is left.
    int taken = 0;
    while (taken < FFmpegMediaCodec::kInputBuffers && codec->dequeueInputBuffer(5000000) >= 0) {
        taken += 1;
    }
    EXPECT_EQ(taken, FFmpegMediaCodec::kInputBuffers);
    EXPECT_LT(codec->dequeueInputBuffer(0), 0);

    EXPECT_EQ(codec->stop(), MediaCodec::OK);
    EXPECT_EQ(codec->dequeueInputBuffer(0), MediaCodec::ERROR_INVALID_OPERATION);
    EXPECT_EQ(codec->start(), MediaCodec::ERROR_INVALID_OPERATION) << "stop leaves it unconfigured";
    ASSERT_EQ(codec->configure(&format, nullptr, nullptr, 0), MediaCodec::OK);
    EXPECT_EQ(codec->start(), MediaCodec::OK);
}

// A picture larger than the codec supports is refused with a clear error,
// whether the format or the stream's own parameter sets announce it, and
// no buffer is ever sized by raw pictures.
TEST(FFmpegMediaCodec, RefusesPicturesAboveTheSizeLimitAndSizesInputByPackets) {
    LogCapture log;
    AnnexBStream huge("h264_8192x8192.mp4");
    ASSERT_EQ(huge.pictures.size(), 1u);
    std::unique_ptr<MediaCodec> codec = MediaCodec::createDecoderByType("video/avc");
    MediaFormat format = videoFormat(true, huge);
    format.setInt32(MediaFormat::KEY_WIDTH, 8192);
    format.setInt32(MediaFormat::KEY_HEIGHT, 8192);
    EXPECT_EQ(codec->configure(&format, nullptr, nullptr, 0), MediaCodec::ERROR_UNSUPPORTED);
    EXPECT_TRUE(log.contains("FFmpegMediaCodec",
                             "configure->picture 8192x8192 is larger than the supported 8192x4352 pixels"));

    // Announced in band to a codec configured for a small size: the picture
    // is refused and the stream ends without one.
    codec = startedCodec(false);
    Driver d(*codec);
    std::vector<uint8_t> first = huge.csd0;
    first.insert(first.end(), huge.csd1.begin(), huge.csd1.end());
    first.insert(first.end(), huge.pictures[0].begin(), huge.pictures[0].end());
    ASSERT_TRUE(d.queue(first, 0, MediaCodec::BUFFER_FLAG_KEY_FRAME));
    d.finish();
    ASSERT_EQ(d.outputs.size(), 1u);
    EXPECT_EQ(d.outputs[0].flags, MediaCodec::BUFFER_FLAG_END_OF_STREAM);
    codec->stop();

    // 8K UHD is supported; its input buffers start at the packet size, not
    // at a raw picture's, and double once a packet fills half of one.
    format.setInt32(MediaFormat::KEY_WIDTH, 7680);
    format.setInt32(MediaFormat::KEY_HEIGHT, 4320);
    ASSERT_EQ(codec->configure(&format, nullptr, nullptr, 0), MediaCodec::OK);
    ASSERT_EQ(codec->start(), MediaCodec::OK);
    ssize_t index = codec->dequeueInputBuffer(0);
    ASSERT_GE(index, 0);
    size_t capacity = 0;
    uint8_t* data = codec->getInputBuffer(static_cast<size_t>(index), &capacity);
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(capacity, FFmpegMediaCodec::kMinInputBytes);
    std::fill(data, data + capacity / 2 + 1, 0);
    ASSERT_EQ(codec->queueInputBuffer(static_cast<size_t>(index), 0, capacity / 2 + 1, 0, 0), MediaCodec::OK);
    index = codec->dequeueInputBuffer(1000000);
    ASSERT_GE(index, 0);
    ASSERT_NE(codec->getInputBuffer(static_cast<size_t>(index), &capacity), nullptr);
    EXPECT_EQ(capacity, 2 * FFmpegMediaCodec::kMinInputBytes);
}

TEST(FFmpegMediaCodec, AWaitingClientIsReleasedByStop) {
    std::unique_ptr<MediaCodec> codec = startedCodec(true);
    std::future<ssize_t> waiting = std::async(std::launch::async, [&] {
        MediaCodecBufferInfo info;
        return codec->dequeueOutputBuffer(&info, -1);
    });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(codec->stop(), MediaCodec::OK);
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), MediaCodec::INFO_TRY_AGAIN_LATER);
}

}  // namespace
}  // namespace kavra::test
