#include "FrameBufferQueue.h"

#include <android/log.h>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <thread>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/mem.h>
}

namespace {
const char* const kTag = "FrameBufferQueue";
// Unpadded planes, as the picture helpers of the decoders expect.
constexpr int kPictureAlign = 1;

int pictureBytes(int format, int width, int height) {
    return av_image_get_buffer_size(static_cast<AVPixelFormat>(format), width, height, kPictureAlign);
}
}  // namespace

FrameBufferQueue::FrameBufferQueue()
    : capacity(0), reserved(0), readIndex(0), writeIndex(0), format(0), width(0), height(0), dataSize(0),
      created(false), bufferType(0), size(0), buffers(nullptr), aborted(true), outputHeld(false) {}

FrameBufferQueue::~FrameBufferQueue() {
    // Owners release() first; doing it again here is harmless and makes sure
    // no slot outlives the queue.
    release();
}

int FrameBufferQueue::create(int capacityArg) {
    NativeMutexLock lock(stateMutex);
    // A create replaces the ring whatever its outcome: the old slots go
    // first, freed with the capacity and type they were made with.
    releaseLocked();
    capacity = capacityArg;
    if (capacity < 1) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "Capacity:%d is invalid.", capacity);
        return -1;
    }
    return createLocked(FRAME_BUFFER_FRAME);
}

int FrameBufferQueue::create(int capacityArg, int dataSizeArg) {
    NativeMutexLock lock(stateMutex);
    releaseLocked();
    capacity = capacityArg;
    dataSize = dataSizeArg;
    if (capacity < 1 || dataSize < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "Capacity:%d,dataSize:%d is invalid.", capacity, dataSize);
        return -1;
    }
    return createLocked(FRAME_BUFFER_BYTES);
}

int FrameBufferQueue::create(int capacityArg, int formatArg, int widthArg, int heightArg) {
    NativeMutexLock lock(stateMutex);
    releaseLocked();
    capacity = capacityArg;
    format = formatArg;
    width = widthArg;
    height = heightArg;
    if (capacity < 1 || width < 1 || height < 1 || format == -1) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "Capacity:%d,Format:%d,Width:%d,Height:%d is invalid.", capacity,
                            format, width, height);
        return -1;
    }
    // The width is passed twice on purpose: this figure is informational,
    // slot sizes come from the true height in allocQueue().
    dataSize = pictureBytes(format, width, width);
    return createLocked(FRAME_BUFFER_PICTURE);
}

int FrameBufferQueue::createLocked(int type) {
    bufferType = type;
    readIndex = 0;
    writeIndex = 0;
    size = 0;
    allocQueue();
    created = true;
    return 0;
}

void FrameBufferQueue::allocQueue() {
    buffers = static_cast<FrameBuffer**>(calloc(static_cast<size_t>(capacity), sizeof(FrameBuffer*)));
    if (buffers == nullptr) {
        return;
    }
    for (int i = 0; i < capacity; ++i) {
        FrameBuffer* slot = new FrameBuffer();
        memset(slot, 0, sizeof(*slot));
        switch (bufferType) {
        case FRAME_BUFFER_FRAME:
            slot->frame = av_frame_alloc();
            slot->data = slot->frame;
            if (slot->frame != nullptr) {
                slot->type = FRAME_BUFFER_FRAME;
                slot->owned = 1;
            }
            break;
        case FRAME_BUFFER_PICTURE:
            if (av_image_alloc(slot->picture.data, slot->picture.linesize, width, height,
                               static_cast<AVPixelFormat>(format), kPictureAlign) >= 0) {
                slot->data = &slot->picture;
                slot->type = FRAME_BUFFER_PICTURE;
                slot->owned = 1;
                slot->size = pictureBytes(format, width, height);
            } else {
                memset(&slot->picture, 0, sizeof(slot->picture));
            }
            break;
        case FRAME_BUFFER_BYTES:
            // malloc(0) may give null; a zero-byte slot is still usable.
            slot->bytes = static_cast<uint8_t*>(malloc(dataSize > 0 ? static_cast<size_t>(dataSize) : 1));
            slot->data = slot->bytes;
            if (slot->bytes != nullptr) {
                slot->type = FRAME_BUFFER_BYTES;
                slot->ptsMs = -1;
                slot->owned = 1;
                slot->size = dataSize;
            }
            break;
        default:
            break;
        }
        buffers[i] = slot;
    }
}

void FrameBufferQueue::start() {
    NativeMutexLock lock(stateMutex);
    aborted = false;
}

void FrameBufferQueue::abort() {
    NativeMutexLock lock(stateMutex);
    aborted = true;
    condition.notifyAll();
}

void FrameBufferQueue::flush() {
    NativeMutexLock output(outputMutex);
    readIndex = 0;
    writeIndex = 0;
    NativeMutexLock state(stateMutex);
    size = 0;
    condition.notifyOne();
}

template <typename Blocked>
bool FrameBufferQueue::spinWhile(Blocked blocked) {
    auto end = std::chrono::steady_clock::now() + std::chrono::microseconds(kSpinBeforeWaitUs);
    while (blocked() && !aborted && std::chrono::steady_clock::now() < end) {
        std::this_thread::yield();
    }
    return !blocked();
}

int FrameBufferQueue::queueInputBuffer(void* src, int timeoutMs) {
    if (size < capacity - reserved) {
        return putInner(static_cast<const FrameBuffer*>(src));
    }
    if ((timeoutMs == -1 || timeoutMs >= 1) && spinWhile([this] { return size == capacity - reserved; })) {
        return putInner(static_cast<const FrameBuffer*>(src));
    }
    stateMutex.lock();
    for (;;) {
        if (size != capacity - reserved) {
            stateMutex.unlock();
            return putInner(static_cast<const FrameBuffer*>(src));
        }
        if (aborted) {
            stateMutex.unlock();
            return -3;
        }
        if (!condition.wait(stateMutex, timeoutMs)) {
            stateMutex.unlock();
            return -2;
        }
    }
}

int FrameBufferQueue::putInner(const FrameBuffer* src) {
    if (aborted || buffers == nullptr) {
        return -3;
    }
    if (src == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "copyFrameBuffer->pSrc is NULL.");
        return -3;
    }
    FrameBuffer* slot = buffers[writeIndex];
    if (src->size != 0) {
        // Refuse what would not fit the slot's own storage.
        if (src->type == FRAME_BUFFER_PICTURE &&
            (slot->type != FRAME_BUFFER_PICTURE || src->format != format || src->width > width || src->height > height)) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "picture %dx%d format %d does not fit slots of %dx%d format %d",
                                src->width, src->height, src->format, width, height, format);
            return -1;
        }
        if (src->type == FRAME_BUFFER_BYTES && (slot->type != FRAME_BUFFER_BYTES || src->size > dataSize)) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "%d bytes do not fit slots of %d bytes", src->size, dataSize);
            return -1;
        }
        if (src->type == FRAME_BUFFER_FRAME && (slot->frame == nullptr || src->data == nullptr)) {
            return -1;
        }
    }
    // The type rarely changes; writing it only when it does keeps the
    // slot's handle line unshared.
    if (slot->type != src->type) {
        slot->type = src->type;
    }
    slot->ptsMs = src->ptsMs;
    slot->size = src->size;
    slot->format = src->format;
    slot->sampleRate = src->sampleRate;
    slot->channels = src->channels;
    slot->nbSamples = src->nbSamples;
    slot->height = src->height;
    slot->width = src->width;
    slot->durationMs = src->durationMs;
    slot->endMs = src->endMs;
    if (src->size != 0) {
        switch (src->type) {
        case FRAME_BUFFER_FRAME:
            av_frame_unref(slot->frame);
            av_frame_move_ref(slot->frame, static_cast<AVFrame*>(src->data));
            break;
        case FRAME_BUFFER_PICTURE: {
            const Picture* in = pictureOf(src);
            av_image_copy(slot->picture.data, slot->picture.linesize, const_cast<const uint8_t**>(in->data),
                          in->linesize, static_cast<AVPixelFormat>(src->format), src->width, src->height);
            break;
        }
        case FRAME_BUFFER_BYTES:
            memcpy(slot->bytes, src->data, static_cast<size_t>(src->size));
            break;
        default:
            break;
        }
    }
    writeIndex = (writeIndex + 1) % capacity;
    {
        NativeMutexLock lock(stateMutex);
        size += 1;
    }
    wakeOne();
    return 0;
}

void FrameBufferQueue::wakeOne() {
    // Called after stateMutex is given back: a waiter woken while the lock
    // is still held would only block on it again at once. The count changed
    // under the lock, and a waiter tests it under the lock before it sleeps,
    // so no wake-up is lost.
    condition.notifyOne();
}

int FrameBufferQueue::dequeueOutputBufferIndex(int timeoutMs) {
    outputMutex.lock();
    if (size != 0) {
        return finishDequeue(false);
    }
    if (timeoutMs == -1 || timeoutMs >= 1) {
        if (spinWhile([this] { return size == 0; })) {
            return finishDequeue(false);
        }
    }
    stateMutex.lock();
    for (;;) {
        if (size != 0) {
            return finishDequeue(true);
        }
        if (aborted) {
            stateMutex.unlock();
            outputMutex.unlock();
            return -3;
        }
        if (!condition.wait(stateMutex, timeoutMs)) {
            stateMutex.unlock();
            outputMutex.unlock();
            return -2;
        }
    }
}

int FrameBufferQueue::finishDequeue(bool stateLocked) {
    if (stateLocked) {
        stateMutex.unlock();
    }
    if (aborted) {
        outputMutex.unlock();
        return -3;
    }
    outputHeld = true;
    return readIndex;
}

FrameBuffer* FrameBufferQueue::getBuffer(int index) {
    if (buffers == nullptr || index < 0 || index >= capacity) {
        return nullptr;
    }
    return buffers[index];
}

int FrameBufferQueue::releaseOutputBuffer() {
    // Only a consumer holding a dequeued slot may release it; a second
    // release would unlock a mutex it does not hold.
    if (!outputHeld.exchange(false)) {
        return -1;
    }
    readIndex = (readIndex + 1) % capacity;
    {
        NativeMutexLock lock(stateMutex);
        size -= 1;
    }
    wakeOne();
    outputMutex.unlock();
    return 0;
}

void FrameBufferQueue::opetationSize(char op, int n) {
    NativeMutexLock lock(stateMutex);
    switch (op) {
    case '=':
        size = n;
        break;
    case '-':
        size -= n;
        break;
    case '+':
        size += n;
        break;
    default:
        break;
    }
    condition.notifyOne();
}

FrameBuffer* FrameBufferQueue::getInner() {
    if (aborted || buffers == nullptr) {
        return nullptr;
    }
    return buffers[readIndex];
}

void FrameBufferQueue::release() {
    NativeMutexLock lock(stateMutex);
    releaseLocked();
}

void FrameBufferQueue::releaseLocked() {
    if (!created) {
        return;
    }
    // `capacity` and `bufferType` still describe these slots: every create
    // releases the old ring before it stores its own arguments.
    for (int i = 0; buffers != nullptr && i < capacity; ++i) {
        FrameBuffer* slot = buffers[i];
        if (slot == nullptr) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "freeFrameBuffer->p is NULL.");
            continue;
        }
        // Payloads are freed by the kind the queue allocated, whatever type a
        // producer's record copied into the slot since; unowned slots have
        // no payload but their record is still ours to delete.
        switch (slot->owned == 1 ? bufferType : FRAME_BUFFER_NONE) {
        case FRAME_BUFFER_FRAME:
            av_frame_free(&slot->frame);
            break;
        case FRAME_BUFFER_PICTURE:
            av_freep(&slot->picture.data[0]);
            break;
        case FRAME_BUFFER_BYTES:
            free(slot->bytes);
            break;
        default:
            break;
        }
        delete slot;
        buffers[i] = nullptr;
    }
    free(buffers);
    buffers = nullptr;
    created = false;
}
