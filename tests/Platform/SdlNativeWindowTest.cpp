// The desktop window, as far as it runs without a display: SDL's dummy
// video driver gives a real window and software renderer in memory.

#include <gtest/gtest.h>

#ifdef KAVRA_HAVE_SDL2

#include <cstdlib>
#include <cstring>
#include <thread>

#include "MemoryNativeWindow.h"
#include "SdlNativeWindow.h"

namespace kavra::test {
namespace {

TEST(SdlNativeWindow, ShowsTheNewestQueuedBufferHeadless) {
    setenv("SDL_VIDEODRIVER", "dummy", 1);
    SdlNativeWindow window("test", 320, 240);
    if (!window.isOpen()) {
        GTEST_SKIP() << "SDL cannot open a window with the dummy driver here";
    }
    ASSERT_EQ(window.apiConnect(NATIVE_WINDOW_API_MEDIA), 0);
    ASSERT_EQ(window.setBuffersGeometry(322, 242, HAL_PIXEL_FORMAT_YV12), 0);
    ASSERT_EQ(window.setBuffersTransform(HAL_TRANSFORM_ROT_90), 0);
    // Two pictures from a renderer thread before one present: the first is
    // recycled, the second shown.
    std::thread renderer([&] {
        for (int i = 0; i < 2; ++i) {
            NativeWindowBuffer* buffer = nullptr;
            ASSERT_EQ(window.dequeueBuffer(&buffer), 0);
            EXPECT_EQ(buffer->width, 322);
            EXPECT_EQ(buffer->stride % 16, 0);
            void* address = nullptr;
            ASSERT_EQ(window.lockBuffer(buffer, GRALLOC_USAGE_SW_WRITE_OFTEN, NativeWindowRect{0, 0, 322, 242},
                                        &address),
                      0);
            memset(address, 128, MemoryNativeWindow::yv12Size(buffer->stride, buffer->height));
            ASSERT_EQ(window.unlockBuffer(buffer), 0);
            ASSERT_EQ(window.queueBuffer(buffer, -1), 0);
        }
    });
    renderer.join();
    EXPECT_TRUE(window.present());
    EXPECT_EQ(window.presentedCount(), 1u);
    EXPECT_TRUE(window.present());
    EXPECT_EQ(window.presentedCount(), 1u) << "nothing new was queued";
    EXPECT_EQ(window.apiDisconnect(NATIVE_WINDOW_API_MEDIA), 0);
}

}  // namespace
}  // namespace kavra::test

#endif  // KAVRA_HAVE_SDL2
