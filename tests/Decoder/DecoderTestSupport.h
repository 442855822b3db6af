#pragma once

// Helpers shared by the decoding tests: a file opened and fed to a decoder,
// an output queue drained on its own thread, picture hashes.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "Common/FFmpegPtr.h"
#include "Common/FrameBufferQueue.h"
#include "Decoder/Decoder.h"
#include "Source/FFmpegMediaExtractor.h"
#include "support/Fixtures.h"
#include "support/FrameIndex.h"

namespace kavra::test {

// FNV-1a over the visible bytes of a YUV 4:2:0 picture, plane by plane.
inline uint64_t hashPicture(const uint8_t* const data[], const int linesize[], int width, int height) {
    uint64_t h = 1469598103934665603ull;
    for (int plane = 0; plane < 3; ++plane) {
        int w = plane == 0 ? width : (width + 1) / 2;
        int rows = plane == 0 ? height : (height + 1) / 2;
        for (int y = 0; y < rows; ++y) {
            const uint8_t* row = data[plane] + static_cast<ptrdiff_t>(y) * linesize[plane];
            for (int x = 0; x < w; ++x) {
                h = (h ^ row[x]) * 1099511628211ull;
            }
        }
    }
    return h;
}

// One frame as a consumer saw it in the output queue; for a picture also
// the index drawn into it and a hash of its planes.
struct DecodedFrame {
    int ptsMs = 0, durationMs = 0, size = 0, type = 0, format = 0, width = 0, height = 0;
    int sampleRate = 0, channels = 0, nbSamples = 0;
    int index = -1;
    uint64_t hash = 0;
};

inline DecodedFrame describeFrame(const FrameBuffer* b) {
    DecodedFrame f{b->ptsMs, b->durationMs, b->size,       b->type,     b->format,
                   b->width, b->height,     b->sampleRate, b->channels, b->nbSamples};
    bool picture = b->width > 0 && b->height > 0 &&
                   (b->format == AV_PIX_FMT_YUV420P || b->format == AV_PIX_FMT_YUVJ420P);
    if (picture && b->size > 0) {
        const Picture* p = pictureOf(b);
        f.index = frameIndexFromLuma(p->data[0], p->linesize[0], b->width, b->height);
        f.hash = hashPicture(p->data, p->linesize, b->width, b->height);
    }
    return f;
}

// Drains an output queue on a thread of its own, as a renderer does, until
// told to finish; records every frame and the end-of-stream record.
class OutputCollector {
public:
    // `onEnd` runs on the collector's thread when the end-of-stream record
    // arrives.
    explicit OutputCollector(FrameBufferQueue* queue, std::function<void()> onEnd = nullptr)
        : mQueue(queue), mOnEnd(std::move(onEnd)) {}
    ~OutputCollector() { finish(); }
    OutputCollector(const OutputCollector&) = delete;
    OutputCollector& operator=(const OutputCollector&) = delete;

    void start() { mThread = std::thread([this] { run(); }); }
    // True once `ends` end-of-stream records arrived, false if they did not
    // within the time-out.
    bool waitForEnd(int timeoutMs, int ends = 1) {
        std::unique_lock<std::mutex> lock(mMutex);
        return mCond.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return mEnds >= ends; });
    }
    void finish() {
        mStop = true;
        if (mThread.joinable()) {
            mThread.join();
        }
    }
    std::vector<DecodedFrame> frames() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mFrames;
    }
    // Records (frames or end markers) that came after the first end marker.
    int afterEnd() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mAfterEnd;
    }
    int ends() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEnds;
    }

private:
    void run() {
        while (!mStop) {
            int index = mQueue->dequeueOutputBufferIndex(20);
            if (index == -2) {
                continue;
            }
            if (index < 0) {
                // Aborted: the decoder is flushing or stopping.
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
                continue;
            }
            const FrameBuffer* b = mQueue->getBuffer(index);
            bool end = b->size == 0;
            DecodedFrame f = end ? DecodedFrame() : describeFrame(b);
            mQueue->releaseOutputBuffer();
            if (end && mOnEnd) {
                mOnEnd();
            }
            std::lock_guard<std::mutex> lock(mMutex);
            mAfterEnd += mEnds > 0 ? 1 : 0;
            if (end) {
                mEnds += 1;
            } else {
                mFrames.push_back(f);
            }
            mCond.notify_all();
        }
    }

    FrameBufferQueue* mQueue;
    std::function<void()> mOnEnd;
    std::thread mThread;
    std::atomic<bool> mStop{false};
    mutable std::mutex mMutex;
    std::condition_variable mCond;
    std::vector<DecodedFrame> mFrames;
    int mEnds = 0;
    int mAfterEnd = 0;
};

// A file opened with the media extractor, its best streams found.
struct OpenedMedia {
    FFmpegMediaExtractor extractor;
    int video = -1;
    int audio = -1;
    bool open(const std::string& path) {
        if (extractor.setSource(path.c_str()) != 0 || extractor.findStreamInfo() != 0) {
            return false;
        }
        video = extractor.mMediaInfo.bestVideoStreamIndex;
        audio = extractor.mMediaInfo.bestAudioStreamIndex;
        return true;
    }
    AVStream* stream(int index) { return extractor.getStream(index); }
};

// Feeds the packets of one stream to the decoder, then its end marker,
// the way the demux thread does: a 5 ms wait, retried while the input queue
// is full. `alter(n, pkt)` may change the n-th packet of the stream before
// it goes in; `limit` stops after that many packets (no end marker then).
// Returns the number of packets fed, -1 when the decoder refused one or
// stayed full for ten seconds.
inline int feedStream(FFmpegMediaExtractor& extractor, int streamIndex, Decoder& decoder,
                      const std::function<void(int, AVPacket*)>& alter = nullptr, int limit = -1) {
    auto queuePacket = [&decoder](AVPacket* pkt) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        int ret = -2;
        while (ret == -2 && std::chrono::steady_clock::now() < deadline) {
            ret = decoder.queueInputBuffer(pkt, 5);
        }
        if (ret != 0 && pkt != nullptr) {
            av_packet_unref(pkt);
        }
        return ret == 0;
    };
    ScopedAVPacket pkt = makeScopedAVPacket();
    int n = 0;
    while ((limit < 0 || n < limit) && extractor.readFrame(pkt.get()) == 0) {
        if (pkt->stream_index != streamIndex || pkt->size == 0) {
            av_packet_unref(pkt.get());
            continue;
        }
        if (alter) {
            alter(n, pkt.get());
        }
        n += 1;
        if (!queuePacket(pkt.get())) {
            return -1;
        }
    }
    if (limit < 0 && !queuePacket(nullptr)) {
        return -1;
    }
    return n;
}

// Checks every frame of a decoded video stream: the index drawn into it is
// its position (a damaged file may lack pictures, then indices only rise),
// times rise, durations match the spacing of neighbouring pictures.
inline void expectWholeVideo(const std::vector<DecodedFrame>& frames, int expectedCount, bool complete = true) {
    ASSERT_EQ(static_cast<int>(frames.size()), expectedCount);
    for (size_t i = 0; i < frames.size(); ++i) {
        const DecodedFrame& f = frames[i];
        if (complete || i == 0) {
            EXPECT_EQ(f.index, static_cast<int>(i)) << "frame " << i;
        } else {
            EXPECT_GT(f.index, frames[i - 1].index) << "frame " << i;
        }
        EXPECT_GT(f.size, 0);
        EXPECT_GT(f.durationMs, 0) << "frame " << i;
        if (i > 0) {
            EXPECT_GT(f.ptsMs, frames[i - 1].ptsMs) << "frame " << i;
            if (f.index == frames[i - 1].index + 1) {
                EXPECT_NEAR(frames[i - 1].durationMs, f.ptsMs - frames[i - 1].ptsMs, 1) << "frame " << i;
            }
        }
        if (::testing::Test::HasFailure()) {
            return;
        }
    }
}

// Decodes one stream of a file to its end; the frames in output order.
inline std::vector<DecodedFrame> decodeStream(Decoder& decoder, const std::string& path, int index) {
    OpenedMedia media;
    EXPECT_TRUE(media.open(path));
    EXPECT_EQ(decoder.create(media.stream(index)), 0);
    OutputCollector out(decoder.getOutputQueue());
    out.start();
    EXPECT_EQ(decoder.start(), 0);
    EXPECT_GT(feedStream(media.extractor, index, decoder), 0);
    EXPECT_TRUE(out.waitForEnd(60000)) << "no end-of-stream record";
    out.finish();
    EXPECT_EQ(out.afterEnd(), 0) << "nothing may follow the end-of-stream record";
    decoder.stop();
    return out.frames();
}

}  // namespace kavra::test
