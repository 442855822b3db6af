// The in-memory window that the renderer tests read their pictures from.

#include <gtest/gtest.h>

#include <cstring>
#include <thread>

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

TEST(MemoryNativeWindow, KeepsQueuedYv12BuffersWithTheirGeometryAndTransformUpToTheLimit) {
    MemoryNativeWindow window;
    NativeWindowBuffer* buffer = nullptr;
    EXPECT_NE(window.dequeueBuffer(&buffer), 0) << "no geometry yet";
    ASSERT_EQ(window.setBuffersGeometry(322, 242, HAL_PIXEL_FORMAT_YV12), 0);
    window.setBuffersTransform(HAL_TRANSFORM_ROT_270);
    queueOne(window, 7);
    window.setBuffersTransform(0);
    window.setStride(400);
    queueOne(window, 9);
    ASSERT_EQ(window.keptCount(), 2u);
    MemoryNativeWindow::QueuedBuffer first = window.kept(0);
    EXPECT_EQ(first.stride, 336) << "default stride: width rounded up to 16";
    EXPECT_EQ(first.transform, HAL_TRANSFORM_ROT_270);
    EXPECT_EQ(first.bytes.size(), 336u * 242u + 2u * 176u * 121u) << "chroma rows of half the stride, 16-aligned";
    EXPECT_EQ(first.bytes[100], 7);
    MemoryNativeWindow::QueuedBuffer second = window.kept(1);
    EXPECT_EQ(second.sequence, 1u);
    EXPECT_EQ(second.stride, 400);
    EXPECT_EQ(second.transform, 0);
    EXPECT_EQ(second.bytes[100], 9);
    window.setKeepLimit(2);
    for (int i = 0; i < 4; ++i) {
        queueOne(window, static_cast<uint8_t>(i));
    }
    EXPECT_EQ(window.queuedCount(), 6u);
    ASSERT_EQ(window.keptCount(), 2u) << "older buffers are recycled";
    EXPECT_EQ(window.kept(0).sequence, 4u);
    EXPECT_EQ(window.kept(1).bytes[0], 3);
}

TEST(MemoryNativeWindow, FailsPlannedCallsAndRefusesBufferMisuse) {
    MemoryNativeWindow window;
    window.failCall(Call::Connect, -19);
    EXPECT_EQ(window.apiConnect(NATIVE_WINDOW_API_MEDIA), -19);
    EXPECT_EQ(window.apiConnect(NATIVE_WINDOW_API_MEDIA), 0);
    EXPECT_NE(window.apiConnect(NATIVE_WINDOW_API_MEDIA), 0) << "already connected";
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
    // Waits for queued buffers are bounded.
    EXPECT_FALSE(window.waitForQueued(2, 20));
    std::thread producer([&] { queueOne(window, 1); });
    EXPECT_TRUE(window.waitForQueued(2, 10000));
    producer.join();
}

}  // namespace
}  // namespace kavra::test
