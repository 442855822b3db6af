#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

#include "Platform/NativeWindow.h"

// A native window that shows nothing and keeps no pictures: it hands out
// buffers for the renderer to fill, and on each queued buffer that carries
// a new picture (one with a timestamp) tells an observer the picture's
// presentation time. Buffers are made once per geometry and reused, so the
// window allocates nothing in steady playback. Thread-safe.
class CountingNativeWindow : public NativeWindow {
public:
    // Called on the renderer's thread, with the picture's time in ms.
    using FrameObserver = std::function<void(int ptsMs)>;

    explicit CountingNativeWindow(FrameObserver observer);
    ~CountingNativeWindow() override;

    int apiConnect(int api) override;
    int apiDisconnect(int api) override;
    int setUsage(uint32_t usage) override;
    int setScalingMode(int mode) override;
    int setBuffersTransform(int transform) override;
    int setBuffersGeometry(int width, int height, int format) override;
    int dequeueBuffer(NativeWindowBuffer** buffer) override;
    int lockBuffer(NativeWindowBuffer* buffer, uint32_t usage, const NativeWindowRect& bounds, void** address) override;
    int unlockBuffer(NativeWindowBuffer* buffer) override;
    int queueBuffer(NativeWindowBuffer* buffer, int fenceFd) override;
    int setBuffersTimestamp(int64_t timestampNs) override;

    // Buffers queued with a new picture, and without one (shown again).
    uint64_t framesQueued() const;
    uint64_t repeatsQueued() const;

private:
    struct Slot {
        NativeWindowBuffer header;
        bool dequeued;
        std::vector<uint8_t> bytes;
    };
    Slot* slotOf(NativeWindowBuffer* buffer);

    const FrameObserver mObserver;
    mutable std::mutex mMutex;
    int mWidth;
    int mHeight;
    int mFormat;
    int64_t mTimestampNs;
    uint64_t mFrames;
    uint64_t mRepeats;
    std::vector<std::unique_ptr<Slot>> mSlots;
};
