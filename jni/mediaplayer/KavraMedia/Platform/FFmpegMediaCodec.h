#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>
#include <vector>

#include "Common/FFmpegPtr.h"
#include "Platform/MediaCodec.h"

// The media codec on Linux: FFmpeg's decoder behind the buffer-queue
// contract, working on a thread of its own as a hardware codec would. It
// takes Annex B input (parameter sets from "csd-0" and "csd-1", or in
// band), announces the output format before its first output buffer, and
// hands out planar YUV 4:2:0 pictures (colour format 19: Y, then U, then V;
// the format's stride is the bytes per luma row and its slice height the
// luma rows per plane, the chroma planes having half of each).
// Like a hardware block writing its output by DMA, the software decoder
// writes its pictures straight into buffers of that layout, so an output
// buffer is the decoded picture itself and nothing is copied. Pictures that
// cannot be decoded so (a hardware decoder's, or another pixel format) are
// packed tightly (stride = width), on the client's thread when it asks for
// the bytes, into an output buffer's own memory, allocated the first time
// that buffer carries a picture of that size.
// Presentation times pass through unchanged. A hardware decoder is used
// through FFmpeg where the machine offers one, FFmpeg's software decoder
// otherwise.
//
// Pictures are limited to kMaxDimension pixels on either side and
// kMaxPixels pixels in all (8192x4352: 8K UHD at 7680x4320 fits). A larger
// size makes configure fail, and a stream that announces one in band has
// its pictures refused by the decoder, so one damaged header cannot make
// the codec allocate gigabytes.
//
// Input buffers hold compressed pictures, whose size does not follow from
// the picture size: they start at kMinInputBytes (or KEY_MAX_INPUT_SIZE when
// the format gives more) and double, up to kMaxInputBytes, whenever a queued
// picture filled more than half of one, before they are next handed out.
//
// Log tag "FFmpegMediaCodec".
class FFmpegMediaCodec : public MediaCodec {
public:
    static constexpr const char* kMimeAvc = "video/avc";
    static constexpr int kInputBuffers = 4;
    static constexpr int kOutputBuffers = 8;
    // Input buffer capacity: where it starts, and how far it grows.
    static constexpr size_t kMinInputBytes = 1 << 20;
    static constexpr size_t kMaxInputBytes = 64 << 20;
    // Largest picture: either side, and pixels in all.
    static constexpr int kMaxDimension = 8192;
    static constexpr int64_t kMaxPixels = 8192 * 4352;

    explicit FFmpegMediaCodec(AVCodecID codecId);
    ~FFmpegMediaCodec() override;

    int configure(const MediaFormat* format, void* surface, void* crypto, uint32_t flags) override;
    int start() override;
    int stop() override;
    int flush() override;
    ssize_t dequeueInputBuffer(int64_t timeoutUs) override;
    uint8_t* getInputBuffer(size_t index, size_t* outSize) override;
    int queueInputBuffer(size_t index, off_t offset, size_t size, uint64_t time, uint32_t flags) override;
    ssize_t dequeueOutputBuffer(MediaCodecBufferInfo* info, int64_t timeoutUs) override;
    uint8_t* getOutputBuffer(size_t index, size_t* outSize) override;
    std::unique_ptr<MediaFormat> getOutputFormat() override;
    int releaseOutputBuffer(size_t index, bool render) override;

    // The hardware device type in use ("vaapi", ...), or null when FFmpeg's
    // software decoder runs. Valid after configure.
    const char* hardwareName() const { return mHardwareName; }

private:
    enum class State { Uninitialized, Configured, Executing };
    // Who holds a buffer: the codec (free), the client (dequeued), the
    // codec's queue (queued input, or output waiting to be dequeued), or the
    // worker (being decoded from or written into).
    enum class Owner { Codec, Client, Queued, Worker };
    // What the worker does next.
    enum class Phase { Input, Receive, Drain, EmitEnd, Ended };

    struct Buffer {
        kavra::ScopedAVMem<uint8_t> data;
        size_t capacity;
        Owner owner;
        MediaCodecBufferInfo info;
        // Output only: the decoded picture, whether it has been packed
        // into `data`, and whether it needs no packing because it was
        // decoded in the announced layout. The reference is dropped only
        // on the worker thread (when the buffer is reused, or at a flush),
        // so that the decoder's recycling of picture memory is ordered
        // after every read of it.
        kavra::ScopedAVFrame frame;
        bool packed;
        bool direct;
    };

    void workerLoop();
    void sendInput(Buffer& in);
    // Hands the decoded frame to a free output buffer, announcing a new
    // format first when its size changed. False while it has to wait.
    bool emitFrame();
    // Every buffer back to the codec, the decoder emptied.
    void resetLocked();
    // Gives a buffer at least `bytes` of memory; false when none can be had.
    static bool reserve(Buffer& buffer, size_t bytes, size_t padding);
    // Bytes written, or -1 when the picture cannot be delivered.
    int copyFrame(const AVFrame* frame, uint8_t* dst, size_t capacity);
    void freeCodecLocked();
    bool openDecoder(const MediaFormat* format, bool tryHardware);
    bool validClientBuffer(const std::vector<Buffer>& buffers, size_t index) const;
    // Waits on the client condition until `ready` or the time-out; also
    // returns when the codec leaves the executing state.
    template <typename Ready>
    void waitClient(std::unique_lock<std::mutex>& lock, int64_t timeoutUs, Ready ready);
    static AVPixelFormat pickFormat(AVCodecContext* ctx, const AVPixelFormat* formats);
    // The decoder's picture allocator: software 4:2:0 pictures in one
    // buffer laid out as the output buffers are, everything else FFmpeg's
    // own way. Runs on the worker thread only.
    static int getBuffer(AVCodecContext* ctx, AVFrame* frame, int flags);
    // True when `frame` lies in one buffer in the output layout; gives its
    // stride and slice height.
    static bool directLayout(const AVFrame* frame, int* stride, int* sliceHeight);

    const AVCodecID mCodecId;
    std::mutex mLock;
    // Wakes clients waiting for a buffer or for a flush to finish.
    std::condition_variable mClientCond;
    // Wakes the worker: new input, a released output, flush or stop.
    std::condition_variable mWorkerCond;
    std::thread mWorker;

    // Everything below is guarded by mLock, except what only the worker
    // touches while it decodes (the codec context and the frames).
    State mState;
    Phase mPhase;
    bool mFlushRequested;
    bool mStopRequested;
    bool mEndQueued;
    bool mHaveFrame;
    bool mFormatChangePending;
    std::vector<Buffer> mInputs;
    std::vector<Buffer> mOutputs;
    std::deque<size_t> mFreeInputs;
    std::deque<size_t> mQueuedInputs;
    std::deque<size_t> mFreeOutputs;
    std::deque<size_t> mReadyOutputs;
    // Configured size, and the output size last announced (0 before any).
    int mWidth;
    int mHeight;
    int mOutWidth;
    int mOutHeight;
    // Layout last announced.
    int mOutStride;
    int mOutSliceHeight;
    // Capacity the input buffers grow to before they are next handed out.
    size_t mInputBytes;

    kavra::ScopedAVCodecContext mCodecContext;
    // Picture buffers of getBuffer, all of mPoolBytes; the worker's alone.
    kavra::ScopedAVBufferPool mPool;
    size_t mPoolBytes;
    kavra::ScopedAVFrame mFrame;
    kavra::ScopedAVFrame mSwFrame;
    kavra::ScopedAVPacket mPacket;
    SwsContext* mSwsContext;
    AVPixelFormat mHwFormat;
    const char* mHardwareName;
};
