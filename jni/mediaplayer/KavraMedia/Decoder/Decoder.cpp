#include "Decoder/Decoder.h"

#include <cstring>

Decoder::Decoder() : mStream(nullptr), mStatus(DECODER_STATUS_IDLE), mFlushing(false) {
    memset(&mFrameBuffer, 0, sizeof(mFrameBuffer));
    mInputQueue.setMaxSize(kInputQueueBytes);
}

Decoder::~Decoder() {
    // Implementations stop their thread in their own destructor, while the
    // objects it uses still exist; this is only the last guard.
    joinThread();
}

int Decoder::queueInputBuffer(AVPacket* pkt, int timeoutMs) {
    AVPacket* p = pkt != nullptr ? pkt : &mInputQueue.endPacket;
    int ret = mInputQueue.put(p, timeoutMs);
    if (ret < 0) {
        return ret;
    }
    updateStatus(DECODER_STATUS_RUNNING);
    return ret;
}

FrameBufferQueue* Decoder::getOutputQueue() { return &mOutputQueue; }

int Decoder::flush() {
    NativeMutexLock lock(mFlushMutex);
    if (!mThread.joinable()) {
        // No decoding thread to hand the work to: empty everything here.
        mInputQueue.flush();
        mOutputQueue.flush();
        flushCodec();
        return 0;
    }
    mFlushing = true;
    updateStatus(DECODER_STATUS_FLUSHING);
    // Wakes the thread wherever it blocks: taking a packet or handing over a
    // frame.
    mInputQueue.abort();
    mOutputQueue.abort();
    if (waitFor(DECODER_STATUS_FLUSHED) == 1) {
        mInputQueue.start();
        mOutputQueue.start();
        updateStatus(DECODER_STATUS_RUNNING);
    }
    // A decoder stopped meanwhile keeps its queues closed, so that nothing
    // can block its thread again.
    mFlushing = false;
    return 0;
}

void Decoder::onFlushRequested() {
    mInputQueue.flush();
    mOutputQueue.flush();
    flushCodec();
    updateStatus(DECODER_STATUS_FLUSHED);
}

int Decoder::getStatus() { return mStatus; }

int Decoder::waitFor(int mask) {
    // The decoding thread asks before every packet; while the status already
    // lies inside the mask it need not take the lock that the feeding
    // thread takes for every packet.
    int status = mStatus;
    if ((status & ~mask) == 0) {
        return 1;
    }
    std::unique_lock<std::mutex> lock(mStatusMutex);
    for (;;) {
        if ((mStatus & ~mask) == 0) {
            return 1;
        }
        if (isFinal(mStatus)) {
            return 0;
        }
        mStatusCond.wait(lock);
    }
}

void Decoder::updateStatus(int status) {
    std::lock_guard<std::mutex> lock(mStatusMutex);
    // Stored only when it changes: every packet fed sets RUNNING again, and
    // a store would take the status' cache line from the decoding thread.
    if (!isFinal(mStatus) && mStatus != status) {
        mStatus = status;
    }
    mStatusCond.notify_all();
}

void Decoder::forceStatus(int status) {
    std::lock_guard<std::mutex> lock(mStatusMutex);
    mStatus = status;
    mStatusCond.notify_all();
}

void Decoder::joinThread() {
    if (mThread.joinable()) {
        mThread.join();
    }
}
