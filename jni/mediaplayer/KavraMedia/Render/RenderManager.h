#pragma once

#include <jni.h>

#include <atomic>
#include <memory>

#include "Common/FrameBuffer.h"
#include "Platform/NativeWindow.h"
#include "Platform/PcmSink.h"
#include "Render/AudioRender.h"
#include "Render/Timer.h"
#include "Render/VideoRender.h"

// Sits between the player's render threads and the two renderers: decides
// for each frame whether to present it, how long to wait first and whether
// it sets the clock. Owns the renderers and the playback clock.
//
// Stream selectors: 1 video, 0 audio, -1 both; other values do nothing.
// The clock runs in time relative to the start time: setCurrentTime
// subtracts it, getCurrentTime does not add it back.
class RenderManager {
public:
    static constexpr int kStreamVideo = 1;
    static constexpr int kStreamAudio = 0;
    static constexpr int kStreamBoth = -1;

    RenderManager();
    // A clock read through another time source (microseconds).
    explicit RenderManager(Timer::TimeSource timeSource);
    ~RenderManager();
    RenderManager(const RenderManager&) = delete;
    RenderManager& operator=(const RenderManager&) = delete;

    // Replaces the video renderer by a new one on `window` and enables video.
    void setVideoPlay(const std::shared_ptr<NativeWindow>& window, int rotation);
    // Replaces the audio renderer by a new one calling `callback` and
    // enables audio; returns the renderer's result.
    int setAudioPlay(JNIEnv* env, jobject callback);
    // The same with a native PCM sink instead of a Java callback.
    int setAudioPlay(std::unique_ptr<PcmSink> sink);
    void setStartTime(int ms) { mStartTime = ms; }

    // Clock-paced rendering: starts the clock (once).
    void openSyncRender();
    // Pauses the clock and flushes the renderers.
    void closeSyncRender();
    void openStreamRender(int stream);
    // Disables presentation of the stream(s) and flushes their renderers.
    void closeStreamRender(int stream);
    // The same as closeStreamRender.
    void flush(int stream);

    void renderFrame(FrameBuffer* frame, int stream);
    // frameTime - clock - start time, or 0 when that is not positive.
    int calculateRenderFrameDelay(int frameTime);
    void setSyncTimerSpeed(float speed);
    void setCurrentTime(int ms);
    int getCurrentTime();

    bool isSyncOpened() const { return mSyncOpened.load(); }
    bool isVideoEnabled() const { return mVideoEnabled.load(); }
    bool isAudioEnabled() const { return mAudioEnabled.load(); }
    VideoRender* getVideoRender() { return mVideoRender.get(); }
    AudioRender* getAudioRender() { return mAudioRender.get(); }

private:
    void closeStreams(int stream);
    // Sleeps the calling thread; the pace of a frame that is not shown.
    static void sleepMs(int ms);
    // Frame time minus clock minus start time, in 32-bit arithmetic.
    int rawDelay(int frameTime);

    std::unique_ptr<VideoRender> mVideoRender;
    std::unique_ptr<AudioRender> mAudioRender;
    Timer mTimer;
    std::atomic<int> mStartTime;
    // Written by the control thread, read by the render threads.
    std::atomic<bool> mSyncOpened;
    std::atomic<bool> mVideoEnabled;
    std::atomic<bool> mAudioEnabled;
};
