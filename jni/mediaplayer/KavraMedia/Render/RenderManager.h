#pragma once

#include <jni.h>

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

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
//
// Every wait that paces a frame here or in a renderer ends early on
// closeSyncRender, closeStreamRender and flush of its stream (a seek or a
// stop). Such a call that comes just before the render thread begins its
// wait still ends that wait, so none is lost to timing.
class RenderManager {
public:
    static constexpr int kStreamVideo = 1;
    static constexpr int kStreamAudio = 0;
    static constexpr int kStreamBoth = -1;
    // The longest a frame is waited for. A frame due further ahead of the
    // clock is a jump in the stream's times, not a frame interval: it is
    // shown after this long rather than freezing the picture.
    static constexpr int kMaxDelayMs = 10000;

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

    // Clock-paced rendering: starts the clock (once). Interruptions of
    // pacing waits left over from before are dropped.
    void openSyncRender();
    // Pauses the clock and flushes the renderers.
    void closeSyncRender();
    void openStreamRender(int stream);
    // Disables presentation of the stream(s) and flushes their renderers.
    void closeStreamRender(int stream);
    // The same as closeStreamRender.
    void flush(int stream);

    void renderFrame(FrameBuffer* frame, int stream);
    // frameTime - clock - start time, or 0 when that is not positive, at
    // most kMaxDelayMs.
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
    // Holds the calling render thread for up to `ms`: the pace of a frame
    // that is not shown. Ends early when the stream's pacing is interrupted.
    void paceWait(int stream, int ms);
    // Ends the pacing wait of the stream(s), or the next one when none is
    // in progress.
    void interruptPacing(int stream);
    // Frame time minus clock minus start time, computed in 64 bits (the
    // 32-bit times may be far apart) and clamped to at most kMaxDelayMs.
    int frameDelay(int frameTime);

    std::unique_ptr<VideoRender> mVideoRender;
    std::unique_ptr<AudioRender> mAudioRender;
    Timer mTimer;
    std::atomic<int> mStartTime;
    // Written by the control thread, read by the render threads.
    std::atomic<bool> mSyncOpened;
    std::atomic<bool> mVideoEnabled;
    std::atomic<bool> mAudioEnabled;
    // Pacing waits of frames that are not shown. One pending interruption
    // per stream (index: the stream selector, 0 audio, 1 video), consumed
    // by the wait it ends.
    std::mutex mPaceLock;
    std::condition_variable mPaceCond;
    bool mPaceInterrupted[2];
};
