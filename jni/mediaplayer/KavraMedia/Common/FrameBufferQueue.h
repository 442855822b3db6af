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

    // Fixed at create(), under stateMutex.
    int capacity;
    // Slots withheld from the producer; nothing changes it.
    int reserved;
    // Filled slots not yet released; changed under stateMutex, read without
    // it on the fast paths.
    std::atomic<int> size;
    // Consumer side (and flush, under outputMutex).
    std::atomic<int> readIndex;
    // Producer side (and flush).
    std::atomic<int> writeIndex;
    int format;
    int width;
    int height;
    int dataSize;
    bool created;
    int bufferType;
    // Held by the consumer from a successful dequeue until its release.
    NativeMutex outputMutex;
    // Guards size changes, aborted, creation and release.
    NativeMutex stateMutex;
    NativeCondition condition;
    FrameBuffer** buffers;
    std::atomic<bool> aborted;
    // The consumer holds outputMutex for a dequeued slot.
    std::atomic<bool> outputHeld;
};
