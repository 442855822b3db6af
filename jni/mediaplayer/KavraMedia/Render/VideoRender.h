#pragma once

#include <pthread.h>

#include <atomic>
#include <memory>

#include "Common/FrameBuffer.h"
#include "Common/NativeCondition.h"
#include "Common/NativeMutex.h"
#include "Decoder/FFmpegVideoConverter.h"
#include "Platform/NativeWindow.h"

// Shows decoded video frames in a native window.
//
// The producer (renderFrame, on the caller's thread) turns each frame into a
// staging picture in planar YUV 4:2:0 and waits until the frame is due; a
// presentation thread of the renderer's own dequeues window buffers, copies
// the staging picture into them in the YV12 layout and queues them. A change
// of frame size or format restarts the presentation thread for the new
// geometry. Failures of the window's configuration and buffer mapping calls
// are fatal assertions (tag "VideoRender").
class VideoRender {
public:
    VideoRender();
    ~VideoRender();
    VideoRender(const VideoRender&) = delete;
    VideoRender& operator=(const VideoRender&) = delete;

    // Connects the window (disconnecting a previous one). The buffers of a
    // new window are configured by the next frame. `window` must not be null.
    void setVideoPlayer(const std::shared_ptr<NativeWindow>& window, int rotation);
    // Hands one frame to the presentation thread and, when delayMs is 1 or
    // more, waits until then (flush() ends the wait early). A frame with no
    // delay is dropped when the presentation thread is copying. Returns 0
    // when the frame was taken, -1 when it was dropped or cannot be shown.
    int renderFrame(FrameBuffer* frame, int delayMs);
    // Reconfigures the window's buffers and restarts the presentation thread
    // when the frame format or size differs from the current one.
    void resetFormatIfChanged(int pixelFormat, int width, int height);
    // Cuts short the producer's wait for its frame; discards nothing. A
    // flush that finds no wait in progress ends the wait of the next frame
    // handed in, so that one issued just before the producer waits is not
    // lost.
    void flush();

    // Frames dropped because the presentation thread held the lock.
    int getDroppedFrames() const { return mDroppedFrames.load(); }
    // Buffer transform for a clockwise rotation in degrees.
    static int transformFor(int rotation);

private:
    struct PictureDeleter {
        void operator()(Picture* picture) const;
    };
    using PicturePtr = std::unique_ptr<Picture, PictureDeleter>;

    static void* onRender(void* self);
    void renderLoop();
    void startRenderThread();
    void stopRenderThread();
    // Copies the staging picture into a mapped YV12 buffer.
    void copyPicture(uint8_t* dst, const NativeWindowBuffer* buffer) const;

    // Lets tests hold the lock to stand in for a busy presentation thread.
    friend class VideoRenderTestPeer;

    NativeMutex mLock;
    NativeCondition mCondition;
    std::shared_ptr<NativeWindow> mNativeWindow;
    // Flushes the producer has not seen yet; under mLock. Each frame handed
    // in takes them all: a frame that has some does not wait.
    int mPendingCount;
    std::atomic<int> mDroppedFrames;
    // Geometry of the current frames. Changed only while no presentation
    // thread runs; the thread reads them under mLock.
    int mWidth;
    int mHeight;
    int mPixelFormat;
    int mRotation;
    // Guarded by mLock; atomic because the thread's exit check reads it
    // outside the lock.
    std::atomic<bool> mFrameReady;
    std::atomic<bool> mRunning;
    // Staging picture, unpadded planar YUV 4:2:0; contents under mLock.
    PicturePtr mPicture;
    FFmpegVideoConverter mConverter;
    pthread_t mRenderThread;
    // A presentation thread was started and not joined yet.
    bool mThreadStarted;
};
