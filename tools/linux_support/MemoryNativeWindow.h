#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/NativeWindow.h"

// A native window that keeps its pictures in memory: every queued buffer is
// kept, with the geometry, stride and transform it was queued with, so that
// a program (a test, a benchmark, a converter) can read back exactly what a
// renderer produced. Buffers are recycled once more than `keepLimit` queued
// buffers are held, so a bounded limit makes the window allocation-free in
// steady state.
//
// Any call can be made to fail on demand, and the stride handed out with
// dequeued buffers can be chosen. Thread-safe.
class MemoryNativeWindow : public NativeWindow {
public:
    enum class Call {
        Connect,
        Disconnect,
        SetUsage,
        SetScalingMode,
        SetTransform,
        SetGeometry,
        Dequeue,
        Lock,
        Unlock,
        Queue,
        kCount,
    };

    // A queued buffer as it was handed back.
    struct QueuedBuffer {
        // Position in the order of all queued buffers, from 0.
        uint64_t sequence = 0;
        int width = 0;
        int height = 0;
        int stride = 0;
        int format = 0;
        int transform = 0;
        std::vector<uint8_t> bytes;
    };

    MemoryNativeWindow();
    ~MemoryNativeWindow() override;

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

    // The next `times` calls of `call` return `result` instead of doing
    // anything.
    void failCall(Call call, int result, int times = 1);
    // Luma stride of buffers dequeued from now on; 0 (the default) rounds
    // the width up to a multiple of 16.
    void setStride(int stride);
    // How many queued buffers are kept (the most recent ones); the default
    // keeps all.
    void setKeepLimit(size_t limit);

    // Waits at most timeoutMs until `count` buffers were queued in all.
    bool waitForQueued(uint64_t count, int timeoutMs) const;
    uint64_t queuedCount() const;
    // Buffers kept, oldest first.
    size_t keptCount() const;
    QueuedBuffer kept(size_t index) const;
    // Calls made of one kind, failed ones included.
    int callCount(Call call) const;
    bool isConnected() const;
    int connectedApi() const;
    uint32_t usage() const;
    int scalingMode() const;
    int transform() const;
    int geometryWidth() const;
    int geometryHeight() const;
    int geometryFormat() const;

    // Bytes of a YV12 buffer of this luma stride and height.
    static size_t yv12Size(int stride, int height);
    // Row pitch of the chroma planes of a YV12 buffer.
    static int yv12ChromaStride(int stride);
    // Writes a YV12 buffer as an RGB PNG file; 0 or a negative error.
    static int writePng(const QueuedBuffer& buffer, const std::string& path);

private:
    struct Slot {
        NativeWindowBuffer header;
        int transform;
        bool locked;
        uint64_t sequence;
        std::vector<uint8_t> bytes;
    };

    // Under mMutex: counts the call and answers a planned failure.
    bool plannedFailure(Call call, int* result);
    Slot* findDequeued(NativeWindowBuffer* buffer, size_t* position);

    mutable std::mutex mMutex;
    mutable std::condition_variable mQueuedCond;
    bool mConnected;
    int mApi;
    uint32_t mUsage;
    int mScalingMode;
    int mTransform;
    int mWidth;
    int mHeight;
    int mFormat;
    int mStride;
    size_t mKeepLimit;
    uint64_t mQueued;
    int mCalls[static_cast<int>(Call::kCount)];
    int mFailResult[static_cast<int>(Call::kCount)];
    int mFailTimes[static_cast<int>(Call::kCount)];
    // Buffers handed out, free for reuse, and queued (oldest first).
    std::vector<std::unique_ptr<Slot>> mDequeued;
    std::vector<std::unique_ptr<Slot>> mFree;
    std::vector<std::unique_ptr<Slot>> mKept;
};
