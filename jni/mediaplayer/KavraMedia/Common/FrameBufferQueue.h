#pragma once

#include <atomic>

#include "FrameBuffer.h"
#include "NativeCondition.h"
#include "NativeMutex.h"

// A ring of pre-allocated frame buffers between one producer (a decoder
// thread) and one consumer (a render thread). Nothing is allocated after
// create(): frames move in by reference (type 1) or are copied into the
// slot's own planes (type 2) or bytes (type 3).
//
// Results: 0 success, -1 invalid creation arguments or a frame that does
// not fit its slot, -2 a wait ran out (or none was allowed), -3 aborted.
// A successful dequeueOutputBufferIndex() leaves the consumer holding the
// output lock until its releaseOutputBuffer(). Lock order: output lock, then
// state lock.
class FrameBufferQueue {
public:
    FrameBufferQueue();
    virtual ~FrameBufferQueue();
    FrameBufferQueue(const FrameBufferQueue&) = delete;
    FrameBufferQueue& operator=(const FrameBufferQueue&) = delete;

    // Each create frees the slots of an earlier one first, even when its own
    // arguments are refused (the queue is then not created).
    // Type 1 slots (AVFrames).
    int create(int capacity);
    // Type 3 slots of dataSize bytes.
    int create(int capacity, int dataSize);
    // Type 2 slots: pictures of the given pixel format and size.
    int create(int capacity, int format, int width, int height);

    void start();
    void abort();
    // Empties the ring. Blocks while a consumer holds a dequeued slot, so
    // abort() first when a consumer may be waiting.
    void flush();

    virtual int dequeueOutputBufferIndex(int timeoutMs);
    virtual FrameBuffer* getBuffer(int index);
    // Gives back the slot of the last successful dequeue; -1 when none is
    // held.
    virtual int releaseOutputBuffer();
    // `src` points at a staging FrameBuffer.
    virtual int queueInputBuffer(void* src, int timeoutMs);

    // Adjusts the filled count without touching payloads: '=' sets, '-'
    // subtracts, '+' adds; always wakes one waiter.
    void opetationSize(char op, int n);

    // The slot the consumer reads next, or null while aborted. No lock.
    FrameBuffer* getInner();
    int getCapacity() const { return capacity; }
    int getSize() const { return size.load(); }
    int getFormat() const { return format; }
    int getWidth() const { return width; }
    int getHeight() const { return height; }
    int getBufferType() const { return bufferType; }
    bool isCreated() const { return created; }

    // Frees every slot the queue allocated; the queue may be created again.
    void release();

private:
    int createLocked(int type);
    void allocQueue();
    int putInner(const FrameBuffer* src);
    int finishDequeue(bool stateLocked);
    void releaseLocked();
    // Wakes one waiter after a change of `size`.
    void wakeOne();
    // Watches the ring without a lock for a short while, as long as
    // `blocked()` holds and the queue is not aborted; true when `blocked()`
    // stopped holding. Short frames (audio decodes in a few microseconds)
    // come and go faster than a thread can sleep and be woken, so either
    // side looks for a moment before it sleeps on the condition; that also
    // spares the other side a wake-up call for every frame.
    template <typename Blocked>
    bool spinWhile(Blocked blocked);

    // How long either side watches before sleeping: a few frame intervals
    // of the shortest frames (AAC decodes in about 5 us).
    static constexpr int kSpinBeforeWaitUs = 50;

    // The producer and the consumer run on different cores and hand over a
    // frame every few microseconds. What only one side writes for every
    // frame sits on a cache line of its own, so that neither side's writes
    // pull the other side's fields across the cores.
    static constexpr size_t kCacheLine = 64;

    // Fixed at create(), under stateMutex.
    int capacity;
    // Slots withheld from the producer; nothing changes it.
    int reserved;
    // Consumer side (and flush, under outputMutex).
    alignas(kCacheLine) std::atomic<int> readIndex;
    // Producer side (and flush).
    alignas(kCacheLine) std::atomic<int> writeIndex;
    int format;
    int width;
    int height;
    int dataSize;
    bool created;
    int bufferType;
    // Held by the consumer from a successful dequeue until its release.
    alignas(kCacheLine) NativeMutex outputMutex;
    // Guards size changes, aborted, creation and release.
    alignas(kCacheLine) NativeMutex stateMutex;
    // Filled slots not yet released; changed under stateMutex, read without
    // it on the fast paths. It shares the lock's cache line, so that taking
    // the lock to change it fetches both at once.
    std::atomic<int> size;
    NativeCondition condition;
    alignas(kCacheLine) FrameBuffer** buffers;
    std::atomic<bool> aborted;
    // The consumer holds outputMutex for a dequeued slot.
    alignas(kCacheLine) std::atomic<bool> outputHeld;
};
