// The Linux media codec: the parts of the buffer-queue contract over
// FFmpeg's H.264 decoder that the decoder built on it never shows (held
// outputs, calls out of order, a waiting client, input sizing). Whole
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

// The video of h264_aac.mp4 as the codec wants it: Annex B pictures in
// decode order (each four-byte length replaced by a start code), and the
// parameter sets as codec-specific data.
struct AnnexBStream {
    std::vector<std::vector<uint8_t>> pictures;
    std::vector<int64_t> pts;
    std::vector<uint8_t> csd0;
    std::vector<uint8_t> csd1;

    AnnexBStream() {
        OpenedMedia media;
        EXPECT_TRUE(media.open(fixture("h264_aac.mp4")));
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
                    std::copy_n("\0\0\0\1", 4, bytes.begin() + static_cast<ptrdiff_t>(at));
                    at += 4 + n;
                }
                pictures.push_back(std::move(bytes));
                pts.push_back(pkt->pts);
            }
            av_packet_unref(pkt.get());
        }
    }
};

const AnnexBStream& stream() {
    static AnnexBStream s;
    return s;
}

MediaFormat videoFormat(const AnnexBStream& s = stream()) {
    MediaFormat f;
    f.setString(MediaFormat::KEY_MIME, "video/avc");
    f.setInt32(MediaFormat::KEY_WIDTH, 320);
    f.setInt32(MediaFormat::KEY_HEIGHT, 240);
    f.setInt32(MediaFormat::KEY_COLOR_FORMAT, MediaCodec::COLOR_FormatYUV420Planar);
    f.setBuffer(MediaFormat::KEY_CSD_0, s.csd0.data(), s.csd0.size());
    f.setBuffer(MediaFormat::KEY_CSD_1, s.csd1.data(), s.csd1.size());
    return f;
}

// Feeding goes on while every output is kept, until the codec has handed
// out all its output buffers (bounded by an overall deadline); then nothing
// more comes out, and a flush voids the indices handed out and returns them.
// (Decoding on from a key picture after a flush is the decoder tests' seek.)
TEST(FFmpegMediaCodec, HeldOutputsStallItAndAFlushReturnsEverything) {
    const AnnexBStream& s = stream();
    std::unique_ptr<MediaCodec> codec = MediaCodec::createDecoderByType("video/avc");
    MediaFormat format = videoFormat();
    ASSERT_EQ(codec->configure(&format, nullptr, nullptr, 0), MediaCodec::OK);
    ASSERT_EQ(codec->start(), MediaCodec::OK);
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
}

TEST(FFmpegMediaCodec, RefusesCallsOutOfOrderAndBadArguments) {
    EXPECT_EQ(MediaCodec::createDecoderByType("video/hevc"), nullptr);
    EXPECT_EQ(MediaCodec::createDecoderByType(nullptr), nullptr);
    std::unique_ptr<MediaCodec> codec = MediaCodec::createDecoderByType("video/avc");
    ASSERT_NE(codec, nullptr);
    MediaCodecBufferInfo info;
    EXPECT_EQ(codec->start(), MediaCodec::ERROR_INVALID_OPERATION) << "not configured";
    EXPECT_EQ(codec->dequeueOutputBuffer(&info, 0), MediaCodec::ERROR_INVALID_OPERATION);
    MediaFormat semiPlanar = videoFormat();
    semiPlanar.setInt32(MediaFormat::KEY_COLOR_FORMAT, 21);
    EXPECT_EQ(codec->configure(&semiPlanar, nullptr, nullptr, 0), MediaCodec::ERROR_UNSUPPORTED);
    MediaFormat format = videoFormat();
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

    // A client waiting without a bound for an output is released by stop.
    std::future<ssize_t> waiting = std::async(std::launch::async, [&] {
        MediaCodecBufferInfo out;
        return codec->dequeueOutputBuffer(&out, -1);
    });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    EXPECT_EQ(codec->stop(), MediaCodec::OK);
    ASSERT_EQ(waiting.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(waiting.get(), MediaCodec::INFO_TRY_AGAIN_LATER);
    EXPECT_EQ(codec->dequeueInputBuffer(0), MediaCodec::ERROR_INVALID_OPERATION);
    EXPECT_EQ(codec->start(), MediaCodec::ERROR_INVALID_OPERATION) << "stop leaves it unconfigured";
    ASSERT_EQ(codec->configure(&format, nullptr, nullptr, 0), MediaCodec::OK);
    EXPECT_EQ(codec->start(), MediaCodec::OK);
}

// 8K UHD is supported; its input buffers start at the packet size, not at a
// raw picture's, and double once a packet fills half of one. (Pictures above
// the size limit are the media codec decoder test's.)
TEST(FFmpegMediaCodec, SizesInputBuffersByPackets) {
    std::unique_ptr<MediaCodec> codec = MediaCodec::createDecoderByType("video/avc");
    MediaFormat format = videoFormat();
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

}  // namespace
}  // namespace kavra::test
