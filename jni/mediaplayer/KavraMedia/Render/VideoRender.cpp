#include "Render/VideoRender.h"

#include <android/log.h>

#include <cstring>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/pixfmt.h>
#include <libavutil/time.h>
}

namespace {
const char* const kTag = "VideoRender";
// Assertion messages name this source and a fixed line per call, so a
// report from the field can be matched to the call that failed.
const char* const kSourcePath = "jni/mediaplayer/KavraMedia/Render/VideoRender";

const char* const kDisconnect = "native_window_api_disconnect(mNativeWindow.get(), NATIVE_WINDOW_API_MEDIA)";
const char* const kConnect = "native_window_api_connect(mNativeWindow.get(), NATIVE_WINDOW_API_MEDIA)";
const char* const kSetUsage =
    "native_window_set_usage(mNativeWindow.get(), GRALLOC_USAGE_SW_READ_NEVER | GRALLOC_USAGE_SW_WRITE_OFTEN | "
    "GRALLOC_USAGE_HW_TEXTURE | GRALLOC_USAGE_EXTERNAL_DISP)";
const char* const kSetScaling =
    "native_window_set_scaling_mode(mNativeWindow.get(), NATIVE_WINDOW_SCALING_MODE_SCALE_CROP)";
const char* const kSetTransform = "native_window_set_buffers_transform(mNativeWindow.get(), transform)";
const char* const kSetGeometry =
    "native_window_set_buffers_geometry(mNativeWindow.get(), bufWidth, bufHeight, halFormat)";
const char* const kMapperLock =
    "mapper.lock(nativeWindowBuffer->handle, GRALLOC_USAGE_SW_WRITE_OFTEN, bounds, (void**) &pDstBuffer)";
const char* const kMapperUnlock = "mapper.unlock(nativeWindowBuffer->handle)";

// Ends the process when a window call did not return 0.
void checkWindowCall(int line, const char* expression, int result) {
    if (result != 0) {
        __android_log_assert(nullptr, kTag, "%s:%d CHECK_EQ( 0,%s) failed: %d vs. %d", kSourcePath, line, expression,
                             0, result);
    }
}

void logThreadFinish() { __android_log_print(ANDROID_LOG_ERROR, kTag, "onRender thread finish."); }
}  // namespace

void VideoRender::PictureDeleter::operator()(Picture* picture) const {
    if (picture != nullptr) {
        av_freep(&picture->data[0]);
        delete picture;
    }
}

VideoRender::VideoRender()
    : mPendingCount(0),
      mDroppedFrames(0),
      mWidth(0),
      mHeight(0),
      mPixelFormat(-1),
      mRotation(0),
      mFrameReady(false),
      mRunning(false),
      mRenderThread(),
      mThreadStarted(false) {}

VideoRender::~VideoRender() {
    stopRenderThread();
    mPicture.reset();
    if (mNativeWindow) {
        checkWindowCall(45, kDisconnect, mNativeWindow->apiDisconnect(NATIVE_WINDOW_API_MEDIA));
        mNativeWindow.reset();
    }
}

void VideoRender::setVideoPlayer(const std::shared_ptr<NativeWindow>& window, int rotation) {
    // The presentation thread works on the window it was started with; it
    // ends before that window is let go.
    stopRenderThread();
    if (mNativeWindow) {
        checkWindowCall(56, kDisconnect, mNativeWindow->apiDisconnect(NATIVE_WINDOW_API_MEDIA));
        mNativeWindow.reset();
    }
    mNativeWindow = window;
    mRotation = rotation;
    // The next frame configures the new window's buffers, whatever its
    // format.
    mPixelFormat = -1;
    if (mNativeWindow) {
        checkWindowCall(64, kConnect, mNativeWindow->apiConnect(NATIVE_WINDOW_API_MEDIA));
    }
}

int VideoRender::transformFor(int rotation) {
    switch (rotation) {
    case 90: return HAL_TRANSFORM_ROT_90;
    case 180: return HAL_TRANSFORM_ROT_180;
    case 270: return HAL_TRANSFORM_ROT_270;
    default: return 0;
    }
}

void VideoRender::resetFormatIfChanged(int pixelFormat, int width, int height) {
    if (pixelFormat == mPixelFormat && width == mWidth && height == mHeight) {
        return;
    }
    // The old thread finishes its buffer with the old geometry and picture
    // before either changes.
    stopRenderThread();
    mPixelFormat = pixelFormat;
    mWidth = width;
    mHeight = height;

    mPicture.reset();
    PicturePtr picture(new Picture());
    memset(picture.get(), 0, sizeof(Picture));
    if (width > 0 && height > 0 &&
        av_image_alloc(picture->data, picture->linesize, width, height, AV_PIX_FMT_YUV420P, 1) >= 0) {
        // Black until the first frame arrives.
        memset(picture->data[0], 16, static_cast<size_t>(picture->linesize[0]) * static_cast<size_t>(height));
        size_t chroma = static_cast<size_t>(picture->linesize[1]) * static_cast<size_t>((height + 1) / 2);
        memset(picture->data[1], 128, chroma);
        memset(picture->data[2], 128, chroma);
        mPicture = std::move(picture);
    }

    NativeWindow* window = mNativeWindow.get();
    if (window == nullptr) {
        return;
    }
    checkWindowCall(123, kSetUsage,
                    window->setUsage(GRALLOC_USAGE_SW_READ_NEVER | GRALLOC_USAGE_SW_WRITE_OFTEN |
                                     GRALLOC_USAGE_HW_TEXTURE | GRALLOC_USAGE_EXTERNAL_DISP));
    checkWindowCall(126, kSetScaling, window->setScalingMode(NATIVE_WINDOW_SCALING_MODE_SCALE_CROP));
    int transform = transformFor(mRotation);
    checkWindowCall(147, kSetTransform, window->setBuffersTransform(transform));
    // Odd sizes round up to the next even number.
    int bufWidth = (width + 1) & ~1;
    int bufHeight = (height + 1) & ~1;
    int halFormat = HAL_PIXEL_FORMAT_YV12;
    checkWindowCall(150, kSetGeometry, window->setBuffersGeometry(bufWidth, bufHeight, halFormat));
    if (mPicture) {
        startRenderThread();
    }
}

void VideoRender::startRenderThread() {
    mFrameReady = false;
    mRunning = true;
    int err = pthread_create(&mRenderThread, nullptr, onRender, this);
    if (err != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "pthread_create error:%d", err);
        mRunning = false;
        return;
    }
    mThreadStarted = true;
}

void VideoRender::stopRenderThread() {
    if (!mThreadStarted) {
        return;
    }
    mRunning = false;
    mLock.lock();
    mCondition.notifyAll();
    mLock.unlock();
    pthread_join(mRenderThread, nullptr);
    mThreadStarted = false;
}

int VideoRender::renderFrame(FrameBuffer* frame, int delayMs) {
    if (frame == nullptr || frame->data == nullptr || frame->size == 0 || !mNativeWindow) {
        return -1;
    }
    resetFormatIfChanged(frame->format, frame->width, frame->height);
    if (!mPicture) {
        return -1;
    }
    int64_t t0 = av_gettime_relative();
    if (delayMs < 1) {
        if (!mLock.tryLock()) {
            mDroppedFrames += 1;
            return -1;
        }
    } else {
        mLock.lock();
    }
    // A flush since the last frame (even one that came before this frame
    // took the lock) means this frame does not wait.
    bool flushed = mPendingCount > 0;
    mPendingCount = 0;
    const Picture* src = pictureOf(frame);
    if (mPixelFormat == AV_PIX_FMT_YUV420P || mPixelFormat == AV_PIX_FMT_YUVJ420P) {
        av_image_copy(mPicture->data, mPicture->linesize, const_cast<const uint8_t**>(src->data), src->linesize,
                      AV_PIX_FMT_YUV420P, mWidth, mHeight);
    } else {
        mConverter.convert(mPicture->data, mWidth, mHeight, AV_PIX_FMT_YUV420P, mPicture->linesize,
                           const_cast<const unsigned char**>(src->data), mWidth, mHeight, src->linesize,
                           mPixelFormat, 0);
    }
    mFrameReady = true;
    // Until the frame is due, or a flush; the condition also carries the
    // presentation thread's wake-ups, so the deadline is checked again
    // after every one.
    const int64_t dueUs = t0 + static_cast<int64_t>(delayMs) * 1000;
    while (!flushed) {
        int64_t leftUs = dueUs - av_gettime_relative();
        if (leftUs <= 0) {
            break;
        }
        mCondition.wait(mLock, static_cast<long>((leftUs + 999) / 1000));
        flushed = mPendingCount > 0;
    }
    mPendingCount = 0;
    mCondition.notifyOne();
    mLock.unlock();
    return 0;
}

void VideoRender::flush() {
    mLock.lock();
    mPendingCount += 1;
    // The presentation thread may be waiting on the same condition; every
    // waiter is woken so that the producer's wait surely ends.
    mCondition.notifyAll();
    mLock.unlock();
}

void* VideoRender::onRender(void* self) {
    static_cast<VideoRender*>(self)->renderLoop();
    return nullptr;
}

void VideoRender::renderLoop() {
    // Fixed for the life of this thread: setVideoPlayer and a format change
    // stop the thread before changing them.
    NativeWindow* window = mNativeWindow.get();
    if (!mRunning || window == nullptr) {
        logThreadFinish();
        return;
    }
    for (;;) {
        NativeWindowBuffer* buffer = nullptr;
        int err = window->dequeueBuffer(&buffer);
        if (err != 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "renderYUV->native_window_dequeue_buffer_and_wait error:%d",
                                err);
            logThreadFinish();
            return;
        }
        // The buffer is mapped before a frame is waited for.
        NativeWindowRect bounds{0, 0, mWidth, mHeight};
        uint8_t* pDstBuffer = nullptr;
        checkWindowCall(178, kMapperLock,
                        window->lockBuffer(buffer, GRALLOC_USAGE_SW_WRITE_OFTEN, bounds,
                                           reinterpret_cast<void**>(&pDstBuffer)));

        mLock.lock();
        while (!mFrameReady && mRunning) {
            mCondition.wait(mLock);
        }
        // When stopping, the last picture is shown again rather than leaving
        // the buffer undefined.
        if (mHeight >= 1) {
            copyPicture(pDstBuffer, buffer);
        }
        mFrameReady = false;
        mLock.unlock();

        checkWindowCall(211, kMapperUnlock, window->unlockBuffer(buffer));
        err = window->queueBuffer(buffer, -1);
        if (err != 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "renderYUV->queueBuffer error:%d", err);
            logThreadFinish();
            return;
        }
        if (!mRunning) {
            logThreadFinish();
            return;
        }
    }
}

void VideoRender::copyPicture(uint8_t* dst, const NativeWindowBuffer* buffer) const {
    const size_t stride = static_cast<size_t>(buffer->stride);
    const size_t height = static_cast<size_t>(buffer->height);
    // YV12: chroma rows are half the luma stride, aligned to 16 bytes; the
    // V plane follows Y, the U plane follows V.
    const size_t chromaStride = ((stride / 2) + 15) & ~static_cast<size_t>(15);
    uint8_t* dstY = dst;
    uint8_t* dstV = dst + stride * height;
    uint8_t* dstU = dst + stride * height + (height * chromaStride) / 2;

    const uint8_t* srcY = mPicture->data[0];
    const size_t lumaBytes = static_cast<size_t>(mWidth);
    for (int row = 0; row < mHeight; ++row) {
        memcpy(dstY, srcY, lumaBytes);
        srcY += mPicture->linesize[0];
        dstY += stride;
    }
    const uint8_t* srcU = mPicture->data[1];
    const uint8_t* srcV = mPicture->data[2];
    const size_t chromaBytes = static_cast<size_t>((mWidth + 1) / 2);
    const int chromaRows = (mHeight + 1) / 2;
    for (int row = 0; row < chromaRows; ++row) {
        memcpy(dstU, srcU, chromaBytes);
        memcpy(dstV, srcV, chromaBytes);
        srcU += mPicture->linesize[1];
        srcV += mPicture->linesize[2];
        dstU += chromaStride;
        dstV += chromaStride;
    }
}
