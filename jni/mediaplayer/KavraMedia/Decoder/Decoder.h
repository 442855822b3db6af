#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "Common/FrameBuffer.h"
#include "Common/FrameBufferQueue.h"
#include "Common/NativeMutex.h"
#include "Common/PacketQueue.h"

extern "C" {
#include <libavformat/avformat.h>
}

// Decoder status values. Each is one bit so that a wait can accept a set of
// them; 1 and 32 are final: once reached, only release() or reset() leave
// them.
enum DecoderStatus {
    DECODER_STATUS_END = 1,
    DECODER_STATUS_IDLE = 2,
    DECODER_STATUS_FLUSHING = 4,
    DECODER_STATUS_FLUSHED = 8,
    DECODER_STATUS_RUNNING = 16,
    DECODER_STATUS_STOPPED = 32,
};

// One elementary stream's decoder, driven by the demux pipeline: create it
// for a stream, start its thread, feed it packets (a null packet marks the
// end of the stream) and let a renderer drain its output queue. A decoded
// frame whose `size` is 0 marks the end of the stream.
//
// The base keeps what every implementation shares: the status with its
// lock and condition, the bounded input queue, the output queue and the
// flush protocol. An implementation's decoding thread honours the protocol:
// when taking a packet fails while a flush is in progress it empties both
// queues and its codec and reports DECODER_STATUS_FLUSHED.
class Decoder {
public:
    // Byte limit of the input queue.
    static constexpr int kInputQueueBytes = 10485760;
    // Slots of the output queue.
    static constexpr int kOutputSlots = 5;

    Decoder();
    virtual ~Decoder();
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    // create(stream, 10, 0).
    virtual int create(AVStream* pInStream) = 0;
    // Prepares decoding of the stream; 0 or a negative error.
    virtual int create(AVStream* pInStream, int withOutputQueue, int extra) = 0;
    // Platform-specific configuration (an output surface); 0.
    virtual int configure(void* surface, void* extra) = 0;
    // Starts the queues and the decoding thread.
    virtual int start() = 0;
    // Hands one packet to the decoder (the queue takes over its payload on
    // success), or the end of the stream when `pkt` is null. 0, or the
    // input queue's -2 (full within the time-out) or -3 (stopped).
    virtual int queueInputBuffer(AVPacket* pkt, int timeoutMs);
    virtual FrameBufferQueue* getOutputQueue();
    // Drops every packet and frame queued and in the codec (a seek). Waits
    // for the decoding thread to report that it has flushed.
    virtual int flush();
    // Stops and joins the decoding thread.
    virtual int stop() = 0;
    // Frees the codec and the output slots; the decoder may be created
    // again. Harmless when repeated.
    virtual int release() = 0;

    int getStatus();
    // Blocks until every bit of the status lies inside `mask` (1), or until
    // the status is final (0).
    int waitFor(int mask);
    // Sets the status unless it is final; always wakes every waiter.
    void updateStatus(int status);

protected:
    static bool isFinal(int status) { return status == DECODER_STATUS_END || status == DECODER_STATUS_STOPPED; }
    // Sets the status whatever it was (release and reset).
    void forceStatus(int status);
    // Empties the codec's own buffers. Called on the decoding thread during a
    // flush, or on the caller's thread when no decoding thread runs.
    virtual void flushCodec() = 0;
    // The decoding thread's part of a flush: both queues and the codec
    // emptied, then DECODER_STATUS_FLUSHED.
    void onFlushRequested();
    void joinThread();

    AVStream* mStream;
    std::thread mThread;
    std::mutex mStatusMutex;
    std::condition_variable mStatusCond;
    // Changed only under mStatusMutex, so that a waiter cannot miss a
    // change; read without it.
    std::atomic<int> mStatus;
    // Serialises flush() calls.
    NativeMutex mFlushMutex;
    // The staging record handed to the output queue.
    FrameBuffer mFrameBuffer;
    FrameBufferQueue mOutputQueue;
    PacketQueue mInputQueue;
    // Set while flush() runs.
    std::atomic<bool> mFlushing;
};
