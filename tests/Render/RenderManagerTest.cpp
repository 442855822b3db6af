// The render manager: free and clock-paced rendering of real decoded
// frames into an in-memory window and a PCM sink, with a hand-driven clock.
// (Paced playback of whole files is the player tests' business.)

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <future>
#include <memory>
#include <vector>

#include "MemoryNativeWindow.h"
#include "Player/KavraMediaDecoder.h"
#include "Render/RenderManager.h"
#include "Render/RenderTestSupport.h"
#include "support/FrameIndex.h"

namespace kavra::test {
namespace {

class CountingSink : public PcmSink {
public:
    explicit CountingSink(std::atomic<int>* count) : mCount(count) {}
    int deliver(const uint8_t* /*pcm*/, int /*size*/) override {
        *mCount += 1;
        return 0;
    }

private:
    std::atomic<int>* mCount;
};

// Hands a video frame over until the renderer took it: a late frame is
// dropped while the presentation thread is busy with the one before.
void renderVideoTaken(RenderManager& manager, FrameBuffer* record) {
    VideoRender* render = manager.getVideoRender();
    for (int attempt = 0; attempt < 100; ++attempt) {
        int dropped = render->getDroppedFrames();
        manager.renderFrame(record, RenderManager::kStreamVideo);
        if (render->getDroppedFrames() == dropped) {
            return;
        }
    }
    ADD_FAILURE() << "the frame was dropped 100 times";
}

class RenderManagerTest : public ::testing::Test {
protected:
    RenderManagerTest() : now(5000000000LL), manager([this] { return now.load(); }) {}

    void SetUp() override {
        video = referenceFrames(fixture("h264_aac.mp4"), AVMEDIA_TYPE_VIDEO, 3);
        audio = referenceFrames(fixture("h264_aac.mp4"), AVMEDIA_TYPE_AUDIO, 1);
        ASSERT_EQ(video.size(), 3u);
        ASSERT_EQ(audio.size(), 1u);
        window = std::make_shared<MemoryNativeWindow>();
        manager.setVideoPlay(window, 0);
        manager.setAudioPlay(std::unique_ptr<PcmSink>(new CountingSink(&delivered)));
    }

    void advanceMs(int64_t ms) { now += ms * 1000; }

    int shownIndex(size_t buffer) {
        MemoryNativeWindow::QueuedBuffer b = window->kept(buffer);
        return frameIndexFromLuma(b.bytes.data(), b.stride, 320, 240);
    }

    std::atomic<int64_t> now;
    RenderManager manager;
    std::shared_ptr<MemoryNativeWindow> window;
    std::atomic<int> delivered{0};
    std::vector<ScopedAVFrame> video;
    std::vector<ScopedAVFrame> audio;
};

TEST_F(RenderManagerTest, FreeRenderingShowsAtOnceAndSetsTheClockFromTheFrame) {
    manager.setStartTime(1000);
    FrameBuffer frame = videoRecord(video[2].get(), 7000);
    renderVideoTaken(manager, &frame);
    ASSERT_TRUE(window->waitForQueued(1, 10000));
    EXPECT_EQ(shownIndex(0), 2);
    EXPECT_EQ(manager.getCurrentTime(), 7000) << "the frame time as it stands, start time not subtracted";
    advanceMs(500);
    EXPECT_EQ(manager.getCurrentTime(), 7000) << "the clock does not run in free rendering";
    FrameBuffer sound = audioRecord(audio[0].get(), 1234);
    manager.renderFrame(&sound, RenderManager::kStreamAudio);
    EXPECT_EQ(delivered.load(), 1);
    EXPECT_EQ(manager.getCurrentTime(), 1234);
}

// Against the running clock the delay of a frame is its distance from the
// clock, relative to the start time, never negative; a disabled stream's
// frames are not shown, paced or not, and muted audio is paced unheard.
TEST_F(RenderManagerTest, PacedRenderingFollowsTheClockAndSkipsADisabledStream) {
    manager.setStartTime(1000);
    manager.setCurrentTime(3000);
    EXPECT_EQ(manager.getCurrentTime(), 2000) << "the clock runs relative to the start time";
    manager.openSyncRender();
    EXPECT_EQ(manager.calculateRenderFrameDelay(3500), 500);
    EXPECT_EQ(manager.calculateRenderFrameDelay(1500), 0) << "never negative";
    manager.flush(RenderManager::kStreamVideo);
    EXPECT_FALSE(manager.isVideoEnabled());
    FrameBuffer hidden = videoRecord(video[1].get(), 3000);
    manager.renderFrame(&hidden, RenderManager::kStreamVideo);
    manager.closeSyncRender();
    manager.renderFrame(&hidden, RenderManager::kStreamVideo);
    manager.openStreamRender(RenderManager::kStreamVideo);
    FrameBuffer shown = videoRecord(video[2].get(), 3000);
    renderVideoTaken(manager, &shown);
    ASSERT_TRUE(window->waitForQueued(1, 10000));
    EXPECT_EQ(shownIndex(0), 2) << "a disabled stream's frame was shown";

    // Muted audio is not heard but still takes its time, until a flush.
    manager.openSyncRender();
    manager.closeStreamRender(RenderManager::kStreamAudio);
    FrameBuffer muted = audioRecord(audio[0].get(), 8000);
    // Closing the stream was a flush: it ends the first wait at once.
    manager.renderFrame(&muted, RenderManager::kStreamAudio);
    std::future<void> paced = std::async(std::launch::async, [&] {
        manager.renderFrame(&muted, RenderManager::kStreamAudio);
    });
    EXPECT_EQ(paced.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout) << "muted audio did not wait";
    manager.flush(RenderManager::kStreamAudio);
    ASSERT_EQ(paced.wait_for(std::chrono::milliseconds(RenderManager::kMaxDelayMs / 2)), std::future_status::ready);
    EXPECT_EQ(delivered.load(), 0) << "muted audio was heard";
}

TEST_F(RenderManagerTest, FarOffFrameTimesNeitherWrapNorHoldTheRenderThread) {
    manager.setCurrentTime(1000);
    ASSERT_EQ(manager.calculateRenderFrameDelay(INT_MIN), 0) << "long past is late, not weeks ahead";
    ASSERT_EQ(manager.calculateRenderFrameDelay(INT_MAX), RenderManager::kMaxDelayMs);

    // A frame far ahead, paced without being shown: one flush (a seek or a
    // stop) ends its wait, even when it comes before the wait begins.
    manager.closeStreamRender(RenderManager::kStreamVideo);
    manager.openSyncRender();
    FrameBuffer ahead = videoRecord(video[0].get(), INT_MAX);
    std::future<void> paced = std::async(std::launch::async, [&] {
        manager.renderFrame(&ahead, RenderManager::kStreamVideo);
    });
    manager.flush(RenderManager::kStreamVideo);
    EXPECT_EQ(paced.wait_for(std::chrono::milliseconds(RenderManager::kMaxDelayMs / 2)), std::future_status::ready);
}

// Raw elementary streams carry no times at all. Played through the demux
// pipeline and the render manager at the clock's pace, as a player's video
// render thread does, every picture is shown once, in order, at a time that
// follows the one before.
class RenderManagerUntimed : public ::testing::TestWithParam<const char*> {};

TEST_P(RenderManagerUntimed, ShowsEveryFrameInOrderAtItsPace) {
    KavraMediaDecoder decoder;
    ASSERT_EQ(decoder.setDataSource(fixture(GetParam()).c_str()), 0);
    ASSERT_EQ(decoder.prepare(), 0);
    ASSERT_EQ(decoder.selectVideoStream(0), 0);
    auto window = std::make_shared<MemoryNativeWindow>();
    RenderManager manager;
    manager.setVideoPlay(window, 0);
    manager.setStartTime(decoder.getStreamStartTime());
    manager.openSyncRender();
    ASSERT_EQ(decoder.start(), 0);
    FrameBufferQueue* queue = decoder.getVideoOutputQueue();
    std::vector<int> times;
    std::atomic<bool> stop{false};
    std::future<bool> played = std::async(std::launch::async, [&] {
        while (!stop) {
            int index = queue->dequeueOutputBufferIndex(30);
            if (index < 0) {
                continue;
            }
            FrameBuffer* frame = queue->getBuffer(index);
            if (frame->size == 0) {
                queue->releaseOutputBuffer();
                return true;
            }
            times.push_back(frame->ptsMs);
            renderVideoTaken(manager, frame);
            queue->releaseOutputBuffer();
            window->waitForQueued(times.size(), 5000);
        }
        return false;
    });
    bool ended = played.wait_for(std::chrono::seconds(30)) == std::future_status::ready;
    // Whatever happened, the render loop ends: a stop cuts its waits short.
    stop = true;
    manager.closeStreamRender(RenderManager::kStreamBoth);
    ASSERT_TRUE(played.get() && ended) << "the stream did not play to its end";
    decoder.stop();
    decoder.release();

    ASSERT_EQ(times.size(), 60u);
    ASSERT_EQ(window->keptCount(), 60u);
    for (size_t i = 0; i < times.size(); ++i) {
        MemoryNativeWindow::QueuedBuffer b = window->kept(i);
        EXPECT_EQ(frameIndexFromLuma(b.bytes.data(), b.stride, b.width, b.height), static_cast<int>(i));
        if (i > 0) {
            // 30 frames a second.
            EXPECT_NEAR(times[i] - times[i - 1], 33, 1) << "frame " << i;
        }
        if (HasFailure()) {
            break;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(RawStreams, RenderManagerUntimed, ::testing::Values("no_times.h264", "no_times.hevc"),
                         FixtureName());

}  // namespace
}  // namespace kavra::test
