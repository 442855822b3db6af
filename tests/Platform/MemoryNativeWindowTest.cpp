// The in-memory window that the renderer tests read their pictures from.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "Common/FFmpegPtr.h"
#include "MemoryNativeWindow.h"

namespace kavra::test {
namespace {

using Call = MemoryNativeWindow::Call;

// Dequeues, maps, fills with `fill` and queues one buffer.
void queueOne(MemoryNativeWindow& window, uint8_t fill) {
    NativeWindowBuffer* buffer = nullptr;
    ASSERT_EQ(window.dequeueBuffer(&buffer), 0);
    void* address = nullptr;
    ASSERT_EQ(window.lockBuffer(buffer, GRALLOC_USAGE_SW_WRITE_OFTEN, NativeWindowRect{0, 0, buffer->width, buffer->height},
                                &address),
              0);
    memset(address, fill, MemoryNativeWindow::yv12Size(buffer->stride, buffer->height));
    ASSERT_EQ(window.unlockBuffer(buffer), 0);
    ASSERT_EQ(window.queueBuffer(buffer, -1), 0);
}

TEST(MemoryNativeWindow, HandsOutYv12BuffersOfTheConfiguredGeometry) {
    MemoryNativeWindow window;
    NativeWindowBuffer* buffer = nullptr;
    EXPECT_NE(window.dequeueBuffer(&buffer), 0) << "no geometry yet";
    ASSERT_EQ(window.setBuffersGeometry(322, 242, HAL_PIXEL_FORMAT_YV12), 0);
    ASSERT_EQ(window.setBuffersTransform(HAL_TRANSFORM_ROT_90), 0);
    ASSERT_EQ(window.dequeueBuffer(&buffer), 0);
    EXPECT_EQ(buffer->width, 322);
    EXPECT_EQ(buffer->height, 242);
    EXPECT_EQ(buffer->stride, 336) << "default stride: width rounded up to 16";
    EXPECT_EQ(MemoryNativeWindow::yv12ChromaStride(336), 176);
    EXPECT_EQ(MemoryNativeWindow::yv12Size(336, 242), 336u * 242u + 2u * 176u * 121u);
    ASSERT_EQ(window.queueBuffer(buffer, -1), 0);
    EXPECT_EQ(window.kept(0).transform, HAL_TRANSFORM_ROT_90);
}

TEST(MemoryNativeWindow, KeepsQueuedBuffersWithTheirGeometryAndTransform) {
    MemoryNativeWindow window;
    window.setBuffersGeometry(64, 32, HAL_PIXEL_FORMAT_YV12);
    window.setStride(80);
    window.setBuffersTransform(HAL_TRANSFORM_ROT_270);
    queueOne(window, 7);
    window.setBuffersTransform(0);
    window.setStride(0);
    queueOne(window, 9);
    ASSERT_EQ(window.keptCount(), 2u);
    MemoryNativeWindow::QueuedBuffer first = window.kept(0);
    EXPECT_EQ(first.sequence, 0u);
    EXPECT_EQ(first.stride, 80);
    EXPECT_EQ(first.transform, HAL_TRANSFORM_ROT_270);
    EXPECT_EQ(first.bytes.size(), MemoryNativeWindow::yv12Size(80, 32));
    EXPECT_EQ(first.bytes[100], 7);
    MemoryNativeWindow::QueuedBuffer second = window.kept(1);
    EXPECT_EQ(second.sequence, 1u);
    EXPECT_EQ(second.stride, 64);
    EXPECT_EQ(second.transform, 0);
    EXPECT_EQ(second.bytes[100], 9);
}

TEST(MemoryNativeWindow, RecyclesBuffersBeyondTheKeepLimit) {
    MemoryNativeWindow window;
    window.setBuffersGeometry(32, 32, HAL_PIXEL_FORMAT_YV12);
    window.setKeepLimit(2);
    for (int i = 0; i < 6; ++i) {
        queueOne(window, static_cast<uint8_t>(i));
    }
    EXPECT_EQ(window.queuedCount(), 6u);
    ASSERT_EQ(window.keptCount(), 2u);
    EXPECT_EQ(window.kept(0).sequence, 4u);
    EXPECT_EQ(window.kept(1).bytes[0], 5);
}

TEST(MemoryNativeWindow, FailsPlannedCallsAndChecksBufferUse) {
    MemoryNativeWindow window;
    window.failCall(Call::Connect, -19);
    EXPECT_EQ(window.apiConnect(NATIVE_WINDOW_API_MEDIA), -19);
    EXPECT_FALSE(window.isConnected());
    EXPECT_EQ(window.apiConnect(NATIVE_WINDOW_API_MEDIA), 0);
    EXPECT_NE(window.apiConnect(NATIVE_WINDOW_API_MEDIA), 0) << "already connected";
    EXPECT_EQ(window.callCount(Call::Connect), 3);

    window.setBuffersGeometry(16, 16, HAL_PIXEL_FORMAT_YV12);
    NativeWindowBuffer* buffer = nullptr;
    ASSERT_EQ(window.dequeueBuffer(&buffer), 0);
    EXPECT_NE(window.unlockBuffer(buffer), 0) << "not locked";
    window.failCall(Call::Lock, -12, 2);
    void* address = nullptr;
    NativeWindowRect all{0, 0, 16, 16};
    EXPECT_EQ(window.lockBuffer(buffer, GRALLOC_USAGE_SW_WRITE_OFTEN, all, &address), -12);
    EXPECT_EQ(window.lockBuffer(buffer, GRALLOC_USAGE_SW_WRITE_OFTEN, all, &address), -12);
    EXPECT_EQ(window.lockBuffer(buffer, GRALLOC_USAGE_SW_WRITE_OFTEN, NativeWindowRect{0, 0, 17, 16}, &address),
              -EINVAL)
        << "bounds beyond the buffer";
    ASSERT_EQ(window.lockBuffer(buffer, GRALLOC_USAGE_SW_WRITE_OFTEN, all, &address), 0);
    EXPECT_NE(window.queueBuffer(buffer, -1), 0) << "still locked";
    ASSERT_EQ(window.unlockBuffer(buffer), 0);
    ASSERT_EQ(window.queueBuffer(buffer, -1), 0);
    EXPECT_NE(window.queueBuffer(buffer, -1), 0) << "queued twice";
}

TEST(MemoryNativeWindow, WaitsBoundedForQueuedBuffers) {
    MemoryNativeWindow window;
    window.setBuffersGeometry(16, 16, HAL_PIXEL_FORMAT_YV12);
    EXPECT_FALSE(window.waitForQueued(1, 20));
    std::thread producer([&] {
        for (int i = 0; i < 3; ++i) {
            queueOne(window, 1);
        }
    });
    EXPECT_TRUE(window.waitForQueued(3, 10000));
    producer.join();
}

// Decodes a PNG file into one RGB24 frame.
ScopedAVFrame readPng(const std::string& path) {
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) {
        return nullptr;
    }
    ScopedAVInputContext input(raw);
    if (avformat_find_stream_info(input.get(), nullptr) < 0 || input->nb_streams != 1) {
        return nullptr;
    }
    const AVCodecParameters* par = input->streams[0]->codecpar;
    EXPECT_EQ(par->codec_id, AV_CODEC_ID_PNG);
    const AVCodec* codec = avcodec_find_decoder(par->codec_id);
    ScopedAVCodecContext ctx(avcodec_alloc_context3(codec));
    avcodec_parameters_to_context(ctx.get(), par);
    if (avcodec_open2(ctx.get(), codec, nullptr) < 0) {
        return nullptr;
    }
    ScopedAVPacket packet = makeScopedAVPacket();
    ScopedAVFrame frame = makeScopedAVFrame();
    if (av_read_frame(input.get(), packet.get()) < 0 || avcodec_send_packet(ctx.get(), packet.get()) < 0 ||
        avcodec_receive_frame(ctx.get(), frame.get()) < 0) {
        return nullptr;
    }
    return frame;
}

TEST(MemoryNativeWindow, WritesABufferAsAPngInItsTrueColours) {
    // Left half red, right half blue, in YV12 with a padded stride: the PNG
    // only looks right when V and U are taken from their own planes.
    const int w = 64;
    const int h = 32;
    MemoryNativeWindow::QueuedBuffer buffer;
    buffer.width = w;
    buffer.height = h;
    buffer.stride = 96;
    buffer.format = HAL_PIXEL_FORMAT_YV12;
    buffer.bytes.assign(MemoryNativeWindow::yv12Size(96, h), 0);
    const int c = MemoryNativeWindow::yv12ChromaStride(96);
    uint8_t* v = buffer.bytes.data() + 96 * h;
    uint8_t* u = v + c * h / 2;
    for (int y = 0; y < h; ++y) {
        for (int x = 0; x < w; ++x) {
            buffer.bytes[static_cast<size_t>(y * 96 + x)] = x < w / 2 ? 81 : 41;
        }
    }
    for (int y = 0; y < h / 2; ++y) {
        for (int x = 0; x < w / 2; ++x) {
            bool red = x < w / 4;
            u[y * c + x] = red ? 90 : 240;
            v[y * c + x] = red ? 240 : 110;
        }
    }
    std::string path = ::testing::TempDir() + "memory_window.png";
    ASSERT_EQ(MemoryNativeWindow::writePng(buffer, path), 0);
    ScopedAVFrame rgb = readPng(path);
    ASSERT_NE(rgb, nullptr);
    ASSERT_EQ(rgb->width, w);
    ASSERT_EQ(rgb->height, h);
    ASSERT_EQ(rgb->format, AV_PIX_FMT_RGB24);
    const uint8_t* left = rgb->data[0] + 16 * rgb->linesize[0] + 8 * 3;
    const uint8_t* right = rgb->data[0] + 16 * rgb->linesize[0] + 56 * 3;
    EXPECT_GT(left[0], 200);
    EXPECT_LT(left[1], 60);
    EXPECT_LT(left[2], 60);
    EXPECT_LT(right[0], 60);
    EXPECT_LT(right[1], 60);
    EXPECT_GT(right[2], 200);
    std::remove(path.c_str());

    MemoryNativeWindow::QueuedBuffer empty;
    EXPECT_LT(MemoryNativeWindow::writePng(empty, path), 0);
}

}  // namespace
}  // namespace kavra::test
