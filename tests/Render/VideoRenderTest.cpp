// The video renderer: staging, pacing, the presentation thread's YV12 copy
// into an in-memory window, size changes and the fatal window checks.
// (Converting other pixel formats is the Java renderer test's, with NV12.)

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "MemoryNativeWindow.h"
#include "Render/RenderTestSupport.h"
#include "Render/VideoRender.h"
#include "support/FrameIndex.h"
#include "support/LogCapture.h"

// Holds the renderer's lock, standing in for a presentation thread that is
// copying a picture.
class VideoRenderTestPeer {
public:
    static NativeMutex& lock(VideoRender& render) { return render.mLock; }
};

namespace kavra::test {
namespace {

using Call = MemoryNativeWindow::Call;
constexpr int kWaitMs = 10000;

// The index drawn into a queued buffer's luma.
int indexOf(const MemoryNativeWindow::QueuedBuffer& buffer, int width, int height) {
    return frameIndexFromLuma(buffer.bytes.data(), buffer.stride, width, height);
}

class VideoRenderTest : public ::testing::Test {
protected:
    void SetUp() override {
        window = std::make_shared<MemoryNativeWindow>();
        render.reset(new VideoRender());
        render->setVideoPlayer(window, 0);
    }

    // Renders one frame (with a short delay, so it is never dropped) and
    // waits until the window holds `expectedQueued` buffers.
    void show(AVFrame* frame, uint64_t expectedQueued) {
        FrameBuffer record = videoRecord(frame, 0);
        ASSERT_EQ(render->renderFrame(&record, 1), 0);
        ASSERT_TRUE(window->waitForQueued(expectedQueued, kWaitMs)) << "buffer " << expectedQueued << " not queued";
    }

    // Renders one frame and waits until the window shows its index. When
    // the frame changes the format, the stopped presentation thread may
    // first queue its last picture once more.
    bool showIndexed(AVFrame* frame, int index) {
        uint64_t before = window->queuedCount();
        FrameBuffer record = videoRecord(frame, 0);
        if (render->renderFrame(&record, 1) != 0) {
            return false;
        }
        for (uint64_t k = 1; k <= 2; ++k) {
            if (!window->waitForQueued(before + k, kWaitMs)) {
                return false;
            }
            if (indexOf(window->kept(window->keptCount() - 1), frame->width, frame->height) == index) {
                return true;
            }
        }
        return false;
    }

    LogCapture log;
    std::shared_ptr<MemoryNativeWindow> window;
    std::unique_ptr<VideoRender> render;
};

// A picture's size and the window's stride (0: its default), then the
// buffer the window must receive: its size and stride, the chroma stride and
// where the V and U planes begin.
struct LayoutCase {
    int width, height, stride;
    int bufWidth, bufHeight, bufStride, chromaStride;
    size_t vOffset, uOffset;
};

void PrintTo(const LayoutCase& c, std::ostream* os) {
    *os << c.width << "x" << c.height << " stride " << c.bufStride;
}

// Whether the visible bytes of two planes with their own strides agree.
bool samePlane(const uint8_t* a, int strideA, const uint8_t* b, int strideB, int width, int height) {
    for (int y = 0; y < height; ++y) {
        if (memcmp(a + static_cast<ptrdiff_t>(y) * strideA, b + static_cast<ptrdiff_t>(y) * strideB,
                   static_cast<size_t>(width)) != 0) {
            return false;
        }
    }
    return true;
}

class VideoRenderLayout : public VideoRenderTest, public ::testing::WithParamInterface<LayoutCase> {};

TEST_P(VideoRenderLayout, CopiesEveryPlaneIntoTheYv12Layout) {
    const LayoutCase& c = GetParam();
    window->setStride(c.stride);
    ScopedAVFrame frame = patternFrame(c.width, c.height, 3);
    show(frame.get(), 1);

    EXPECT_EQ(window->usage(), 0x2130u);
    EXPECT_EQ(window->scalingMode(), NATIVE_WINDOW_SCALING_MODE_SCALE_CROP);
    EXPECT_EQ(window->geometryWidth(), c.bufWidth);
    EXPECT_EQ(window->geometryHeight(), c.bufHeight);
    EXPECT_EQ(window->geometryFormat(), 0x32315659);
    MemoryNativeWindow::QueuedBuffer buffer = window->kept(0);
    ASSERT_EQ(buffer.stride, c.bufStride);
    ASSERT_EQ(buffer.height, c.bufHeight);

    const uint8_t* out = buffer.bytes.data();
    const int chromaWidth = (c.width + 1) / 2;
    const int chromaHeight = (c.height + 1) / 2;
    EXPECT_TRUE(samePlane(out, c.bufStride, frame->data[0], frame->linesize[0], c.width, c.height)) << "Y";
    EXPECT_TRUE(samePlane(out + c.uOffset, c.chromaStride, frame->data[1], frame->linesize[1], chromaWidth, chromaHeight))
        << "U";
    EXPECT_TRUE(samePlane(out + c.vOffset, c.chromaStride, frame->data[2], frame->linesize[2], chromaWidth, chromaHeight))
        << "V";
}

INSTANTIATE_TEST_SUITE_P(
    Strides, VideoRenderLayout,
    ::testing::Values(LayoutCase{1920, 1080, 1920, 1920, 1080, 1920, 960, 2073600, 2073600 + 518400},
                      LayoutCase{1280, 720, 1344, 1280, 720, 1344, 672, 967680, 967680 + 241920},
                      LayoutCase{1280, 720, 1300, 1280, 720, 1300, 656, 936000, 936000 + 236160},
                      // Odd size: buffers 322 x 242, default stride 336.
                      LayoutCase{321, 241, 0, 322, 242, 336, 176, 81312, 81312 + 21296}),
    [](const ::testing::TestParamInfo<LayoutCase>& info) {
        return std::to_string(info.param.width) + "x" + std::to_string(info.param.height) + "Stride" +
               std::to_string(info.param.bufStride);
    });

TEST_F(VideoRenderTest, TurnsBuffersByTheStreamRotation) {
    struct Case {
        int rotation;
        int transform;
    };
    for (Case c : {Case{0, 0}, Case{90, 4}, Case{180, 3}, Case{270, 7}, Case{45, 0}, Case{-90, 0}}) {
        auto turned = std::make_shared<MemoryNativeWindow>();
        render->setVideoPlayer(turned, c.rotation);
        ScopedAVFrame frame = patternFrame(64, 48, c.rotation);
        FrameBuffer record = videoRecord(frame.get(), 0);
        ASSERT_EQ(render->renderFrame(&record, 1), 0);
        ASSERT_TRUE(turned->waitForQueued(1, kWaitMs));
        EXPECT_EQ(turned->transform(), c.transform) << "rotation " << c.rotation;
        EXPECT_EQ(turned->kept(0).transform, c.transform) << "rotation " << c.rotation;
    }
    EXPECT_FALSE(window->isConnected()) << "the first window was disconnected when replaced";
}

// A late frame is dropped while the presentation thread holds the lock; a
// due one waits for it, and a flush ends that wait.
TEST_F(VideoRenderTest, DropsALateFrameWhileThePresentationThreadHoldsTheLock) {
    std::vector<ScopedAVFrame> frames = referenceFrames(fixture("h264_aac.mp4"), AVMEDIA_TYPE_VIDEO, 3);
    ASSERT_EQ(frames.size(), 3u);
    show(frames[0].get(), 1);

    FrameBuffer late = videoRecord(frames[1].get(), 0);
    VideoRenderTestPeer::lock(*render).lock();
    std::future<int> dropped = std::async(std::launch::async, [&] { return render->renderFrame(&late, 0); });
    bool returned = dropped.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    EXPECT_TRUE(returned) << "a late frame never waits for the lock";
    if (!returned) {
        VideoRenderTestPeer::lock(*render).unlock();
        dropped.wait();
        VideoRenderTestPeer::lock(*render).lock();
    }
    EXPECT_EQ(dropped.get(), -1);
    EXPECT_EQ(render->getDroppedFrames(), 1);

    // A frame with a delay waits for the lock instead.
    FrameBuffer due = videoRecord(frames[2].get(), 0);
    std::future<int> waiting = std::async(std::launch::async, [&] { return render->renderFrame(&due, 30); });
    EXPECT_EQ(waiting.wait_for(std::chrono::milliseconds(200)), std::future_status::timeout);
    VideoRenderTestPeer::lock(*render).unlock();
    EXPECT_EQ(waiting.get(), 0);
    ASSERT_TRUE(window->waitForQueued(2, kWaitMs));
    EXPECT_EQ(indexOf(window->kept(1), 320, 240), 2) << "the dropped frame was never shown";
    EXPECT_EQ(render->getDroppedFrames(), 1);
    expectOneFlushEndsTheWait(*render, &due);
}

TEST_F(VideoRenderTest, RestartsThePresentationThreadOnEverySizeChange) {
    // Sizes by three frames: 320x240, 160x120 (the first second of the
    // growing clip), 320x240, 160x120.
    std::vector<ScopedAVFrame> large = referenceFrames(fixture("h264_aac.mp4"), AVMEDIA_TYPE_VIDEO, 12);
    std::vector<ScopedAVFrame> small = referenceFrames(fixture("h264_size_change.h264"), AVMEDIA_TYPE_VIDEO, 12);
    ASSERT_EQ(large.size() + small.size(), 24u);
    auto widthOf = [](int i) { return i / 3 % 2 == 0 ? 320 : 160; };
    for (int i = 0; i < 12; ++i) {
        ASSERT_TRUE(showIndexed((widthOf(i) == 320 ? large : small)[i].get(), i)) << "frame " << i;
    }
    // Every frame once, in order, at its own size; a stopped thread may
    // show its last picture once more before the next size starts.
    int expected = 0;
    for (size_t b = 0; b < window->keptCount(); ++b) {
        MemoryNativeWindow::QueuedBuffer buffer = window->kept(b);
        int index = indexOf(buffer, buffer.width, buffer.height);
        if (expected > 0 && index == expected - 1 && widthOf(expected) != widthOf(expected - 1)) {
            EXPECT_EQ(buffer.width, widthOf(index)) << "buffer " << b;
            continue;
        }
        EXPECT_EQ(index, expected) << "buffer " << b;
        EXPECT_EQ(buffer.width, widthOf(expected)) << "buffer " << b;
        EXPECT_EQ(buffer.height, widthOf(expected) * 3 / 4) << "buffer " << b;
        ++expected;
    }
    EXPECT_EQ(expected, 12);
    EXPECT_EQ(log.count("VideoRender", "onRender thread finish."), 3) << "one thread ended per change";
    render.reset();
    EXPECT_EQ(log.count("VideoRender", "onRender thread finish."), 4);
}

// The producer goes on converting frames that are no longer shown.
TEST_F(VideoRenderTest, EndsThePresentationThreadWhenTheWindowFailsToDequeueOrQueue) {
    ScopedAVFrame frame = patternFrame(64, 48, 1);
    FrameBuffer record = videoRecord(frame.get(), 0);
    struct Case {
        Call call;
        int error;
        const char* line;
    };
    for (Case c : {Case{Call::Dequeue, -12, "renderYUV->native_window_dequeue_buffer_and_wait error:-12"},
                   Case{Call::Queue, -32, "renderYUV->queueBuffer error:-32"}}) {
        auto failing = std::make_shared<MemoryNativeWindow>();
        render->setVideoPlayer(failing, 0);
        failing->failCall(c.call, c.error);
        log.clear();
        ASSERT_EQ(render->renderFrame(&record, 1), 0);
        EXPECT_TRUE(log.waitFor("VideoRender", "onRender thread finish.", kWaitMs)) << c.line;
        EXPECT_TRUE(log.contains("VideoRender", c.line));
        EXPECT_EQ(render->renderFrame(&record, 1), 0);
        EXPECT_EQ(failing->queuedCount(), 0u);
    }
}

// A window call that fails is fatal. On the producer's side the assertion
// reaches the caller (here as an exception, see LogCapture).
TEST_F(VideoRenderTest, AWindowThatFailsToConnectIsFatalForTheCaller) {
    auto fresh = std::make_shared<MemoryNativeWindow>();
    fresh->failCall(Call::Connect, -22);
    std::string message;
    try {
        render->setVideoPlayer(fresh, 0);
    } catch (const LogAssertion& assertion) {
        message = assertion.message;
    }
    EXPECT_NE(message.find("native_window_api_connect"), std::string::npos) << message;
    EXPECT_NE(message.find("failed: 0 vs. -22"), std::string::npos) << message;
    // The process would have ended here. For the fixture to tear down, the
    // window is connected by hand, so that the renderer's disconnect succeeds.
    fresh->apiConnect(NATIVE_WINDOW_API_MEDIA);
}

// On the presentation thread the assertion ends that thread.
TEST_F(VideoRenderTest, ABufferThatFailsToMapEndsThePresentationThread) {
    log.endEngineThreadsOnAssertion(true);
    ScopedAVFrame frame = patternFrame(32, 32, 0);
    FrameBuffer record = videoRecord(frame.get(), 0);
    window->failCall(Call::Lock, -5);
    ASSERT_EQ(render->renderFrame(&record, 1), 0);
    ASSERT_TRUE(log.waitForEndedThreads(1, kWaitMs));
    EXPECT_NE(log.endedThreadAssertions()[0].find("mapper.lock"), std::string::npos);
    EXPECT_EQ(window->queuedCount(), 0u);
}

}  // namespace
}  // namespace kavra::test
