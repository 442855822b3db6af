#include "CountingNativeWindow.h"

#include <cerrno>
#include <utility>

namespace {
// The renderer holds one buffer at a time; a second covers a renderer that
// dequeues before queueing the last one.
constexpr size_t kMaxSlots = 2;

size_t yv12Bytes(int stride, int height) {
    size_t chromaStride = ((static_cast<size_t>(stride) / 2) + 15) & ~static_cast<size_t>(15);
    return static_cast<size_t>(stride) * height + chromaStride * height;
}
}  // namespace

CountingNativeWindow::CountingNativeWindow(FrameObserver observer)
    : mObserver(std::move(observer)),
      mWidth(0),
      mHeight(0),
      mFormat(0),
      mTimestampNs(NATIVE_WINDOW_TIMESTAMP_AUTO),
      mFrames(0),
      mRepeats(0) {}

CountingNativeWindow::~CountingNativeWindow() = default;

int CountingNativeWindow::apiConnect(int) { return 0; }
int CountingNativeWindow::apiDisconnect(int) { return 0; }
int CountingNativeWindow::setUsage(uint32_t) { return 0; }
int CountingNativeWindow::setScalingMode(int) { return 0; }
int CountingNativeWindow::setBuffersTransform(int) { return 0; }

int CountingNativeWindow::setBuffersGeometry(int width, int height, int format) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (width < 0 || height < 0) {
        return -EINVAL;
    }
    mWidth = width;
    mHeight = height;
    mFormat = format;
    return 0;
}

int CountingNativeWindow::dequeueBuffer(NativeWindowBuffer** buffer) {
    std::lock_guard<std::mutex> lock(mMutex);
    if (buffer == nullptr || mWidth < 1 || mHeight < 1 || mFormat != HAL_PIXEL_FORMAT_YV12) {
        return -EINVAL;
    }
    Slot* free = nullptr;
    for (auto& slot : mSlots) {
        if (!slot->dequeued) {
            free = slot.get();
            break;
        }
    }
    if (free == nullptr) {
        if (mSlots.size() >= kMaxSlots) {
            return -EBUSY;
        }
        mSlots.emplace_back(new Slot());
        free = mSlots.back().get();
        free->header.handle = free;
    }
    const int stride = (mWidth + 15) & ~15;
    // Resized only when the geometry grows or changes.
    free->bytes.resize(yv12Bytes(stride, mHeight));
    free->header.width = mWidth;
    free->header.height = mHeight;
    free->header.stride = stride;
    free->header.format = mFormat;
    free->dequeued = true;
    *buffer = &free->header;
    return 0;
}

CountingNativeWindow::Slot* CountingNativeWindow::slotOf(NativeWindowBuffer* buffer) {
    for (auto& slot : mSlots) {
        if (&slot->header == buffer) {
            return slot.get();
        }
    }
    return nullptr;
}

int CountingNativeWindow::lockBuffer(NativeWindowBuffer* buffer, uint32_t, const NativeWindowRect&, void** address) {
    std::lock_guard<std::mutex> lock(mMutex);
    Slot* slot = slotOf(buffer);
    if (slot == nullptr || !slot->dequeued || address == nullptr) {
        return -EINVAL;
    }
    *address = slot->bytes.data();
    return 0;
}

int CountingNativeWindow::unlockBuffer(NativeWindowBuffer* buffer) {
    std::lock_guard<std::mutex> lock(mMutex);
    return slotOf(buffer) != nullptr ? 0 : -EINVAL;
}

int CountingNativeWindow::setBuffersTimestamp(int64_t timestampNs) {
    std::lock_guard<std::mutex> lock(mMutex);
    mTimestampNs = timestampNs;
    return 0;
}

int CountingNativeWindow::queueBuffer(NativeWindowBuffer* buffer, int) {
    int64_t timestampNs;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        Slot* slot = slotOf(buffer);
        if (slot == nullptr || !slot->dequeued) {
            return -EINVAL;
        }
        slot->dequeued = false;
        timestampNs = mTimestampNs;
        mTimestampNs = NATIVE_WINDOW_TIMESTAMP_AUTO;
        if (timestampNs == NATIVE_WINDOW_TIMESTAMP_AUTO) {
            mRepeats += 1;
            return 0;
        }
        mFrames += 1;
    }
    // Outside the lock: the observer may take its time.
    if (mObserver) {
        mObserver(static_cast<int>(timestampNs / 1000000));
    }
    return 0;
}

uint64_t CountingNativeWindow::framesQueued() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mFrames;
}

uint64_t CountingNativeWindow::repeatsQueued() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mRepeats;
}
