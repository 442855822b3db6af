#pragma once

#include <cstdint>

// The engine's port to a native window: a queue of graphic buffers that the
// video renderer fills in software and hands back for display. It carries
// the calls the renderer makes on a phone's window and on its graphic-buffer
// mapper; each implementation decides where the pictures go.
//
// Every call returns 0 on success and a non-zero status otherwise.

// Values as the platform defines them.
enum : int {
    NATIVE_WINDOW_API_MEDIA = 3,
};

enum : uint32_t {
    GRALLOC_USAGE_SW_READ_NEVER = 0x00000000U,
    GRALLOC_USAGE_SW_WRITE_OFTEN = 0x00000030U,
    GRALLOC_USAGE_HW_TEXTURE = 0x00000100U,
    GRALLOC_USAGE_EXTERNAL_DISP = 0x00002000U,
};

enum : int {
    NATIVE_WINDOW_SCALING_MODE_FREEZE = 0,
    NATIVE_WINDOW_SCALING_MODE_SCALE_TO_WINDOW = 1,
    NATIVE_WINDOW_SCALING_MODE_SCALE_CROP = 2,
    NATIVE_WINDOW_SCALING_MODE_NO_SCALE_CROP = 3,
};

// Clockwise buffer transforms.
enum : int {
    HAL_TRANSFORM_NONE = 0,
    HAL_TRANSFORM_FLIP_H = 1,
    HAL_TRANSFORM_FLIP_V = 2,
    HAL_TRANSFORM_ROT_90 = 4,
    HAL_TRANSFORM_ROT_180 = 3,
    HAL_TRANSFORM_ROT_270 = 7,
};

enum : int {
    // Planar Y, then V (Cr), then U (Cb); see VideoRender for the strides.
    HAL_PIXEL_FORMAT_YV12 = 0x32315659,
};

// A buffer timestamp that lets the window pick the time itself.
constexpr int64_t NATIVE_WINDOW_TIMESTAMP_AUTO = INT64_MIN;

// One buffer handed out by dequeueBuffer. The window owns it; the caller
// uses it until it queues it.
struct NativeWindowBuffer {
    int width;
    int height;
    // Row pitch of the luma plane, in pixels (bytes for YV12).
    int stride;
    int format;
    // The implementation's own handle for the buffer.
    void* handle;
};

// The rectangle of a buffer that a lock makes writable.
struct NativeWindowRect {
    int left;
    int top;
    int right;
    int bottom;
};

class NativeWindow {
public:
    virtual ~NativeWindow() = default;

    virtual int apiConnect(int api) = 0;
    virtual int apiDisconnect(int api) = 0;
    virtual int setUsage(uint32_t usage) = 0;
    virtual int setScalingMode(int mode) = 0;
    virtual int setBuffersTransform(int transform) = 0;
    // Size and pixel format of the buffers dequeued from now on.
    virtual int setBuffersGeometry(int width, int height, int format) = 0;
    // Waits for a free buffer and hands it out.
    virtual int dequeueBuffer(NativeWindowBuffer** buffer) = 0;
    // Maps a dequeued buffer for CPU access (the graphic-buffer mapper's
    // lock); `*address` receives the start of its first plane.
    virtual int lockBuffer(NativeWindowBuffer* buffer, uint32_t usage, const NativeWindowRect& bounds,
                           void** address) = 0;
    virtual int unlockBuffer(NativeWindowBuffer* buffer) = 0;
    // Hands a filled buffer back for display. `fenceFd` -1: no fence.
    virtual int queueBuffer(NativeWindowBuffer* buffer, int fenceFd) = 0;
    // Presentation time in nanoseconds of the buffers queued from now on,
    // or NATIVE_WINDOW_TIMESTAMP_AUTO. Windows that do not schedule or
    // record pictures by time ignore it.
    virtual int setBuffersTimestamp(int64_t timestampNs) {
        (void)timestampNs;
        return 0;
    }
};
