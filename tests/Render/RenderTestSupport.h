#pragma once

// Helpers shared by the rendering tests: decoded fixture frames and the
// frame records the renderers consume.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/imgutils.h>
}

#include "Common/FFmpegPtr.h"
#include "Common/FrameBuffer.h"
#include "support/Fixtures.h"
#include "support/ReferenceDecoder.h"

namespace kavra::test {

// The record a decoder hands out for a decoded video frame.
inline FrameBuffer videoRecord(AVFrame* frame, int ptsMs) {
    FrameBuffer record{};
    record.type = FRAME_BUFFER_FRAME;
    record.data = record.frame = frame;
    record.ptsMs = ptsMs;
    record.durationMs = 33;
    record.format = frame->format;
    record.width = frame->width;
    record.height = frame->height;
    record.size = av_image_get_buffer_size(static_cast<AVPixelFormat>(frame->format), frame->width, frame->height, 1);
    return record;
}

// The record a decoder hands out for a decoded audio frame.
inline FrameBuffer audioRecord(AVFrame* frame, int ptsMs) {
    FrameBuffer record{};
    record.type = FRAME_BUFFER_FRAME;
    record.data = record.frame = frame;
    record.ptsMs = ptsMs;
    record.format = frame->format;
    record.sampleRate = frame->sample_rate;
    record.channels = frame->ch_layout.nb_channels;
    record.nbSamples = frame->nb_samples;
    record.size = frame->nb_samples * record.channels * av_get_bytes_per_sample(static_cast<AVSampleFormat>(frame->format));
    return record;
}

// A planar 4:2:0 frame whose every byte depends on plane, row and column,
// so any misplaced byte shows. Line sizes are FFmpeg's padded ones.
inline ScopedAVFrame patternFrame(int width, int height, int seed) {
    ScopedAVFrame frame = makeScopedAVFrame();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width;
    frame->height = height;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    for (int plane = 0; plane < 3; ++plane) {
        int w = plane == 0 ? width : (width + 1) / 2;
        int h = plane == 0 ? height : (height + 1) / 2;
        for (int y = 0; y < h; ++y) {
            for (int x = 0; x < w; ++x) {
                frame->data[plane][y * frame->linesize[plane] + x] =
                    static_cast<uint8_t>((x * 7 + y * 13 + plane * 71 + seed * 31) % 251);
            }
        }
    }
    return frame;
}

// One flush ends a renderer's wait before a due frame, whether it comes
// during the wait or just before the wait begins (a flush the producer has
// not seen yet); either way the frame is still handed on.
template <class Render>
void expectOneFlushEndsTheWait(Render& render, FrameBuffer* record) {
    for (bool flushFirst : {false, true}) {
        if (flushFirst) {
            render.flush();
        }
        std::future<int> waiting = std::async(std::launch::async, [&] { return render.renderFrame(record, 30000); });
        if (!flushFirst) {
            render.flush();
        }
        ASSERT_EQ(waiting.wait_for(std::chrono::seconds(10)), std::future_status::ready)
            << (flushFirst ? "a flush before the frame was lost" : "flush did not cut the wait short");
        EXPECT_EQ(waiting.get(), 0);
    }
}

}  // namespace kavra::test
