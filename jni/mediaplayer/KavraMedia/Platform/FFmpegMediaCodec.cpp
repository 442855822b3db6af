#include "Platform/FFmpegMediaCodec.h"

#include <android/log.h>

#include <algorithm>
#include <chrono>
#include <cstring>

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/imgutils.h>
#include <libavutil/pixdesc.h>
}

namespace {
const char* const kTag = "FFmpegMediaCodec";
// Consecutive failed receives tolerated while draining before the end of
// stream is declared anyway.
constexpr int kMaxDrainErrors = 64;

// Memory an output buffer starts with, before any picture is packed in.
constexpr size_t kMinOutputBytes = 64;

// Extra bytes after a decoded picture: the decoder's vector code may read a
// little past the last row.
constexpr size_t kPicturePadding = 256;
// Luma rows are a multiple of this many bytes apart, so that the chroma
// planes (half as wide) still start every row on the alignment the
// decoder's vector code wants.
constexpr int kMinStrideAlign = 128;

size_t pictureBytes(int width, int height) {
    int n = av_image_get_buffer_size(AV_PIX_FMT_YUV420P, width, height, 1);
    return n > 0 ? static_cast<size_t>(n) : 0;
}

// Bytes of a picture in the output layout: a luma plane of `sliceHeight`
// rows `stride` bytes apart, then two chroma planes of half of each.
size_t layoutBytes(int stride, int sliceHeight) {
    size_t luma = static_cast<size_t>(stride) * static_cast<size_t>(sliceHeight);
    return luma + 2 * (luma / 4);
}

bool isPlanar420(int format) { return format == AV_PIX_FMT_YUV420P || format == AV_PIX_FMT_YUVJ420P; }
}  // namespace

FFmpegMediaCodec::FFmpegMediaCodec(AVCodecID codecId)
    : mCodecId(codecId), mState(State::Uninitialized), mPhase(Phase::Input), mFlushRequested(false),
      mStopRequested(false), mEndQueued(false), mHaveFrame(false), mFormatChangePending(false), mWidth(0),
      mHeight(0), mOutWidth(0), mOutHeight(0), mOutStride(0), mOutSliceHeight(0), mInputBytes(0), mPoolBytes(0),
      mSwsContext(nullptr), mHwFormat(AV_PIX_FMT_NONE), mHardwareName(nullptr) {}

FFmpegMediaCodec::~FFmpegMediaCodec() { stop(); }

AVPixelFormat FFmpegMediaCodec::pickFormat(AVCodecContext* ctx, const AVPixelFormat* formats) {
    const FFmpegMediaCodec* self = static_cast<const FFmpegMediaCodec*>(ctx->opaque);
    for (const AVPixelFormat* f = formats; *f != AV_PIX_FMT_NONE; ++f) {
        if (*f == self->mHwFormat) {
            return *f;
        }
    }
    // The hardware cannot take this stream: the first software format.
    for (const AVPixelFormat* f = formats; *f != AV_PIX_FMT_NONE; ++f) {
        const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(*f);
        if (d != nullptr && !(d->flags & AV_PIX_FMT_FLAG_HWACCEL)) {
            return *f;
        }
    }
    return AV_PIX_FMT_NONE;
}

bool FFmpegMediaCodec::openDecoder(const MediaFormat* format, bool tryHardware) {
    const AVCodec* codec = avcodec_find_decoder(mCodecId);
    if (codec == nullptr) {
        return false;
    }
    mCodecContext.reset(avcodec_alloc_context3(codec));
    if (mCodecContext == nullptr) {
        return false;
    }
    AVCodecContext* ctx = mCodecContext.get();
    // Both callbacks (getBuffer, pickFormat) find this codec through it.
    ctx->opaque = this;
    ctx->get_buffer2 = getBuffer;
    ctx->width = mWidth;
    ctx->height = mHeight;
    // The decoder refuses larger pictures announced in band.
    ctx->max_pixels = kMaxPixels;
    // Codec-specific data (parameter sets in Annex B form) become the
    // decoder's extradata: it reads them when it opens and keeps them across
    // flushes.
    size_t extraSize = 0;
    const void* csd[2] = {nullptr, nullptr};
    size_t csdSize[2] = {0, 0};
    const char* keys[2] = {MediaFormat::KEY_CSD_0, MediaFormat::KEY_CSD_1};
    for (int i = 0; i < 2; ++i) {
        if (format->getBuffer(keys[i], &csd[i], &csdSize[i])) {
            extraSize += csdSize[i];
        }
    }
    if (extraSize > 0) {
        ctx->extradata = static_cast<uint8_t*>(av_mallocz(extraSize + AV_INPUT_BUFFER_PADDING_SIZE));
        if (ctx->extradata == nullptr) {
            return false;
        }
        size_t at = 0;
        for (int i = 0; i < 2; ++i) {
            if (csdSize[i] > 0) {
                memcpy(ctx->extradata + at, csd[i], csdSize[i]);
                at += csdSize[i];
            }
        }
        ctx->extradata_size = static_cast<int>(extraSize);
    }
    mHwFormat = AV_PIX_FMT_NONE;
    mHardwareName = nullptr;
    if (tryHardware) {
        for (int i = 0;; ++i) {
            const AVCodecHWConfig* config = avcodec_get_hw_config(codec, i);
            if (config == nullptr) {
                break;
            }
            if (!(config->methods & AV_CODEC_HW_CONFIG_METHOD_HW_DEVICE_CTX)) {
                continue;
            }
            AVBufferRef* device = nullptr;
            if (av_hwdevice_ctx_create(&device, config->device_type, nullptr, nullptr, 0) == 0) {
                ctx->hw_device_ctx = device;
                ctx->get_format = pickFormat;
                mHwFormat = config->pix_fmt;
                mHardwareName = av_hwdevice_get_type_name(config->device_type);
                break;
            }
        }
    }
    if (avcodec_open2(ctx, codec, nullptr) < 0) {
        mCodecContext.reset();
        mHwFormat = AV_PIX_FMT_NONE;
        mHardwareName = nullptr;
        return false;
    }
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "decoder:%s", mHardwareName != nullptr ? mHardwareName : "software");
    return true;
}

int FFmpegMediaCodec::configure(const MediaFormat* format, void* /*surface*/, void* /*crypto*/, uint32_t flags) {
    std::lock_guard<std::mutex> lock(mLock);
    if (mState != State::Uninitialized) {
        return ERROR_INVALID_OPERATION;
    }
    if (format == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    // Only decoding is offered.
    if (flags != 0) {
        return ERROR_UNSUPPORTED;
    }
    const char* mime = nullptr;
    if (!format->getString(MediaFormat::KEY_MIME, &mime) || strcmp(mime, kMimeAvc) != 0) {
        return ERROR_UNSUPPORTED;
    }
    int32_t color = COLOR_FormatYUV420Planar;
    format->getInt32(MediaFormat::KEY_COLOR_FORMAT, &color);
    if (color != COLOR_FormatYUV420Planar) {
        return ERROR_UNSUPPORTED;
    }
    int32_t width = 0;
    int32_t height = 0;
    int32_t maxInput = 0;
    format->getInt32(MediaFormat::KEY_WIDTH, &width);
    format->getInt32(MediaFormat::KEY_HEIGHT, &height);
    format->getInt32(MediaFormat::KEY_MAX_INPUT_SIZE, &maxInput);
    if (width < 0 || height < 0) {
        return ERROR_INVALID_PARAMETER;
    }
    if (width > kMaxDimension || height > kMaxDimension ||
        static_cast<int64_t>(width) * height > kMaxPixels) {
        __android_log_print(ANDROID_LOG_ERROR, kTag,
                            "configure->picture %dx%d is larger than the supported %dx%d pixels", width, height,
                            kMaxDimension, static_cast<int>(kMaxPixels / kMaxDimension));
        return ERROR_UNSUPPORTED;
    }
    mWidth = width;
    mHeight = height;
    if (!openDecoder(format, true) && !openDecoder(format, false)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "configure->cannot open the decoder");
        freeCodecLocked();
        return ERROR_MALFORMED;
    }
    mFrame = kavra::makeScopedAVFrame();
    mSwFrame = kavra::makeScopedAVFrame();
    mPacket = kavra::makeScopedAVPacket();
    // Input buffers are sized by the compressed pictures, never by raw ones:
    // they start small and grow with the packets (dequeueInputBuffer).
    mInputBytes = std::min(kMaxInputBytes, std::max(kMinInputBytes, static_cast<size_t>(std::max(maxInput, 0))));
    mInputs.clear();
    mInputs.resize(kInputBuffers);
    bool allocated = mFrame != nullptr && mSwFrame != nullptr && mPacket != nullptr;
    for (Buffer& b : mInputs) {
        b.capacity = 0;
        b.owner = Owner::Codec;
        memset(&b.info, 0, sizeof(b.info));
        allocated = allocated && reserve(b, mInputBytes, AV_INPUT_BUFFER_PADDING_SIZE);
    }
    mOutputs.clear();
    mOutputs.resize(kOutputBuffers);
    for (Buffer& b : mOutputs) {
        b.capacity = 0;
        b.owner = Owner::Codec;
        memset(&b.info, 0, sizeof(b.info));
        b.frame = kavra::makeScopedAVFrame();
        b.packed = false;
        b.direct = false;
    }
    for (Buffer& b : mOutputs) {
        // A little memory of its own, so that even an empty buffer (the end
        // of the stream) has an address; it grows for a picture to pack.
        allocated = allocated && b.frame != nullptr && reserve(b, kMinOutputBytes, 0);
    }
    if (!allocated) {
        freeCodecLocked();
        return ERROR_UNKNOWN;
    }
    mOutWidth = 0;
    mOutHeight = 0;
    mOutStride = 0;
    mOutSliceHeight = 0;
    mState = State::Configured;
    return OK;
}

bool FFmpegMediaCodec::reserve(Buffer& buffer, size_t bytes, size_t padding) {
    if (buffer.capacity >= bytes && buffer.data != nullptr) {
        return true;
    }
    kavra::ScopedAVMem<uint8_t> data(static_cast<uint8_t*>(av_malloc(bytes + padding)));
    if (data == nullptr) {
        return false;
    }
    buffer.data = std::move(data);
    buffer.capacity = bytes;
    return true;
}

int FFmpegMediaCodec::start() {
    std::lock_guard<std::mutex> lock(mLock);
    if (mState != State::Configured) {
        return ERROR_INVALID_OPERATION;
    }
    resetLocked();
    mStopRequested = false;
    mFlushRequested = false;
    mFormatChangePending = false;
    mState = State::Executing;
    mWorker = std::thread(&FFmpegMediaCodec::workerLoop, this);
    return OK;
}

int FFmpegMediaCodec::stop() {
    std::unique_lock<std::mutex> lock(mLock);
    if (mState == State::Executing) {
        mStopRequested = true;
        mWorkerCond.notify_all();
        mClientCond.notify_all();
        lock.unlock();
        if (mWorker.joinable()) {
            mWorker.join();
        }
        lock.lock();
    }
    freeCodecLocked();
    mFlushRequested = false;
    mState = State::Uninitialized;
    mClientCond.notify_all();
    return OK;
}

void FFmpegMediaCodec::freeCodecLocked() {
    mCodecContext.reset();
    mFrame.reset();
    mSwFrame.reset();
    mPacket.reset();
    sws_freeContext(mSwsContext);
    mSwsContext = nullptr;
    mInputs.clear();
    mOutputs.clear();
    // After the frames that may hold its buffers.
    mPool.reset();
    mPoolBytes = 0;
    mFreeInputs.clear();
    mQueuedInputs.clear();
    mFreeOutputs.clear();
    mReadyOutputs.clear();
    mHaveFrame = false;
    mEndQueued = false;
    mFormatChangePending = false;
    mPhase = Phase::Input;
}

int FFmpegMediaCodec::flush() {
    std::unique_lock<std::mutex> lock(mLock);
    if (mState != State::Executing) {
        return ERROR_INVALID_OPERATION;
    }
    // The worker empties the decoder between two of its steps, so that no
    // decoding call is under way while the state is cleared.
    mFlushRequested = true;
    mWorkerCond.notify_all();
    mClientCond.wait(lock, [this] { return !mFlushRequested || mState != State::Executing; });
    return OK;
}

void FFmpegMediaCodec::resetLocked() {
    if (mCodecContext != nullptr) {
        avcodec_flush_buffers(mCodecContext.get());
    }
    if (mFrame != nullptr) {
        av_frame_unref(mFrame.get());
    }
    mHaveFrame = false;
    mPhase = Phase::Input;
    mEndQueued = false;
    mFreeInputs.clear();
    mQueuedInputs.clear();
    for (size_t i = 0; i < mInputs.size(); ++i) {
        mInputs[i].owner = Owner::Codec;
        mFreeInputs.push_back(i);
    }
    mFreeOutputs.clear();
    mReadyOutputs.clear();
    for (size_t i = 0; i < mOutputs.size(); ++i) {
        mOutputs[i].owner = Owner::Codec;
        av_frame_unref(mOutputs[i].frame.get());
        mFreeOutputs.push_back(i);
    }
    // An announced format stays announced; one not yet reported still is
    // reported before the next output buffer.
}

template <typename Ready>
void FFmpegMediaCodec::waitClient(std::unique_lock<std::mutex>& lock, int64_t timeoutUs, Ready ready) {
    auto done = [&] { return mState != State::Executing || (!mFlushRequested && ready()); };
    if (timeoutUs < 0) {
        mClientCond.wait(lock, done);
    } else if (timeoutUs > 0) {
        mClientCond.wait_for(lock, std::chrono::microseconds(timeoutUs), done);
    }
}

ssize_t FFmpegMediaCodec::dequeueInputBuffer(int64_t timeoutUs) {
    std::unique_lock<std::mutex> lock(mLock);
    if (mState != State::Executing) {
        return ERROR_INVALID_OPERATION;
    }
    waitClient(lock, timeoutUs, [this] { return !mFreeInputs.empty(); });
    if (mState != State::Executing || mFlushRequested || mFreeInputs.empty()) {
        return INFO_TRY_AGAIN_LATER;
    }
    size_t index = mFreeInputs.front();
    mFreeInputs.pop_front();
    Buffer& in = mInputs[index];
    // Grown once the packets asked for it; a buffer that cannot grow keeps
    // its old memory.
    if (in.capacity < mInputBytes && !reserve(in, mInputBytes, AV_INPUT_BUFFER_PADDING_SIZE)) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "input buffer stays at %zu bytes", in.capacity);
    }
    in.owner = Owner::Client;
    return static_cast<ssize_t>(index);
}

bool FFmpegMediaCodec::validClientBuffer(const std::vector<Buffer>& buffers, size_t index) const {
    return mState == State::Executing && index < buffers.size() && buffers[index].owner == Owner::Client;
}

uint8_t* FFmpegMediaCodec::getInputBuffer(size_t index, size_t* outSize) {
    std::lock_guard<std::mutex> lock(mLock);
    if (!validClientBuffer(mInputs, index)) {
        return nullptr;
    }
    if (outSize != nullptr) {
        *outSize = mInputs[index].capacity;
    }
    return mInputs[index].data.get();
}

int FFmpegMediaCodec::queueInputBuffer(size_t index, off_t offset, size_t size, uint64_t time, uint32_t flags) {
    std::lock_guard<std::mutex> lock(mLock);
    if (!validClientBuffer(mInputs, index)) {
        return ERROR_INVALID_PARAMETER;
    }
    Buffer& in = mInputs[index];
    if (offset < 0 || static_cast<size_t>(offset) > in.capacity || size > in.capacity - static_cast<size_t>(offset)) {
        return ERROR_INVALID_PARAMETER;
    }
    if (mEndQueued) {
        // Nothing is taken after the end of the stream until a flush.
        return ERROR_INVALID_OPERATION;
    }
    // A picture that filled more than half of its buffer: the next ones
    // may not fit, so every buffer doubles before it is handed out again.
    if (static_cast<size_t>(offset) + size > in.capacity / 2 && mInputBytes < kMaxInputBytes) {
        mInputBytes = std::min(kMaxInputBytes, std::max(mInputBytes, in.capacity * 2));
    }
    in.info.offset = static_cast<int32_t>(offset);
    in.info.size = static_cast<int32_t>(size);
    in.info.presentationTimeUs = static_cast<int64_t>(time);
    in.info.flags = flags;
    in.owner = Owner::Queued;
    mQueuedInputs.push_back(index);
    if (flags & BUFFER_FLAG_END_OF_STREAM) {
        mEndQueued = true;
    }
    mWorkerCond.notify_all();
    return OK;
}

ssize_t FFmpegMediaCodec::dequeueOutputBuffer(MediaCodecBufferInfo* info, int64_t timeoutUs) {
    std::unique_lock<std::mutex> lock(mLock);
    if (mState != State::Executing || info == nullptr) {
        return mState != State::Executing ? ERROR_INVALID_OPERATION : ERROR_INVALID_PARAMETER;
    }
    waitClient(lock, timeoutUs, [this] { return mFormatChangePending || !mReadyOutputs.empty(); });
    if (mState != State::Executing || mFlushRequested) {
        return INFO_TRY_AGAIN_LATER;
    }
    if (mFormatChangePending) {
        mFormatChangePending = false;
        return INFO_OUTPUT_FORMAT_CHANGED;
    }
    if (mReadyOutputs.empty()) {
        return INFO_TRY_AGAIN_LATER;
    }
    size_t index = mReadyOutputs.front();
    mReadyOutputs.pop_front();
    mOutputs[index].owner = Owner::Client;
    *info = mOutputs[index].info;
    return static_cast<ssize_t>(index);
}

uint8_t* FFmpegMediaCodec::getOutputBuffer(size_t index, size_t* outSize) {
    std::lock_guard<std::mutex> lock(mLock);
    if (!validClientBuffer(mOutputs, index)) {
        return nullptr;
    }
    Buffer& out = mOutputs[index];
    if (out.direct) {
        // The decoded picture itself, in the announced layout.
        if (outSize != nullptr) {
            *outSize = out.frame->buf[0]->size;
        }
        return out.frame->data[0];
    }
    if (!out.packed && out.info.size > 0) {
        // First access: the picture is laid out in the buffer now, on the
        // client's thread.
        int size = copyFrame(out.frame.get(), out.data.get(), out.capacity);
        out.packed = true;
        if (size != out.info.size) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "cannot lay out picture of %d bytes", out.info.size);
            out.info.size = 0;
            return nullptr;
        }
    }
    if (outSize != nullptr) {
        *outSize = out.capacity;
    }
    return out.data.get();
}

std::unique_ptr<MediaFormat> FFmpegMediaCodec::getOutputFormat() {
    std::lock_guard<std::mutex> lock(mLock);
    // Before the first announcement: the configured size.
    int width = mOutWidth > 0 ? mOutWidth : mWidth;
    int height = mOutHeight > 0 ? mOutHeight : mHeight;
    int stride = mOutStride > 0 ? mOutStride : width;
    int sliceHeight = mOutSliceHeight > 0 ? mOutSliceHeight : height;
    std::unique_ptr<MediaFormat> format(new MediaFormat());
    format->setString(MediaFormat::KEY_MIME, "video/raw");
    format->setInt32(MediaFormat::KEY_WIDTH, width);
    format->setInt32(MediaFormat::KEY_HEIGHT, height);
    format->setInt32(MediaFormat::KEY_COLOR_FORMAT, COLOR_FormatYUV420Planar);
    format->setInt32(MediaFormat::KEY_STRIDE, stride);
    format->setInt32(MediaFormat::KEY_SLICE_HEIGHT, sliceHeight);
    return format;
}

int FFmpegMediaCodec::releaseOutputBuffer(size_t index, bool /*render*/) {
    std::lock_guard<std::mutex> lock(mLock);
    if (!validClientBuffer(mOutputs, index)) {
        return ERROR_INVALID_PARAMETER;
    }
    mOutputs[index].owner = Owner::Codec;
    mFreeOutputs.push_back(index);
    mWorkerCond.notify_all();
    return OK;
}

void FFmpegMediaCodec::sendInput(Buffer& in) {
    AVCodecContext* ctx = mCodecContext.get();
    AVPacket* pkt = mPacket.get();
    if (in.info.size > 0) {
        av_packet_unref(pkt);
        pkt->data = in.data.get() + in.info.offset;
        pkt->size = in.info.size;
        pkt->pts = in.info.presentationTimeUs;
        pkt->dts = AV_NOPTS_VALUE;
        pkt->flags = (in.info.flags & BUFFER_FLAG_KEY_FRAME) ? AV_PKT_FLAG_KEY : 0;
        // The data is not reference counted, so the decoder copies what it
        // keeps and the buffer can go back to the client at once.
        int ret = avcodec_send_packet(ctx, pkt);
        pkt->data = nullptr;
        pkt->size = 0;
        if (ret < 0) {
            __android_log_print(ANDROID_LOG_WARN, kTag, "decode error:%d", ret);
        }
    }
    if (in.info.flags & BUFFER_FLAG_END_OF_STREAM) {
        avcodec_send_packet(ctx, nullptr);
    }
}

void FFmpegMediaCodec::workerLoop() {
    std::unique_lock<std::mutex> lock(mLock);
    int drainErrors = 0;
    for (;;) {
        if (mFlushRequested) {
            resetLocked();
            mFlushRequested = false;
            mClientCond.notify_all();
            continue;
        }
        if (mStopRequested) {
            break;
        }
        switch (mPhase) {
        case Phase::Input: {
            if (mQueuedInputs.empty()) {
                mWorkerCond.wait(lock);
                break;
            }
            size_t index = mQueuedInputs.front();
            mQueuedInputs.pop_front();
            Buffer& in = mInputs[index];
            in.owner = Owner::Worker;
            bool end = (in.info.flags & BUFFER_FLAG_END_OF_STREAM) != 0;
            lock.unlock();
            sendInput(in);
            lock.lock();
            in.owner = Owner::Codec;
            mFreeInputs.push_back(index);
            mClientCond.notify_all();
            mPhase = end ? Phase::Drain : Phase::Receive;
            drainErrors = 0;
            break;
        }
        case Phase::Receive:
        case Phase::Drain: {
            if (mHaveFrame) {
                if (!emitFrame()) {
                    mWorkerCond.wait(lock);
                }
                break;
            }
            lock.unlock();
            int ret = avcodec_receive_frame(mCodecContext.get(), mFrame.get());
            lock.lock();
            if (ret == 0) {
                mHaveFrame = true;
            } else if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
                mPhase = mPhase == Phase::Drain ? Phase::EmitEnd : Phase::Input;
            } else {
                __android_log_print(ANDROID_LOG_WARN, kTag, "decode error:%d", ret);
                if (mPhase == Phase::Receive) {
                    mPhase = Phase::Input;
                } else if (++drainErrors > kMaxDrainErrors) {
                    mPhase = Phase::EmitEnd;
                }
            }
            break;
        }
        case Phase::EmitEnd: {
            if (mFreeOutputs.empty()) {
                mWorkerCond.wait(lock);
                break;
            }
            size_t index = mFreeOutputs.front();
            mFreeOutputs.pop_front();
            Buffer& out = mOutputs[index];
            out.info.offset = 0;
            out.info.size = 0;
            out.info.presentationTimeUs = 0;
            out.info.flags = BUFFER_FLAG_END_OF_STREAM;
            av_frame_unref(out.frame.get());
            out.packed = true;
            out.direct = false;
            out.owner = Owner::Queued;
            mReadyOutputs.push_back(index);
            mClientCond.notify_all();
            mPhase = Phase::Ended;
            break;
        }
        case Phase::Ended:
            mWorkerCond.wait(lock);
            break;
        }
    }
}

bool FFmpegMediaCodec::emitFrame() {
    AVFrame* frame = mFrame.get();
    int stride = frame->width;
    int sliceHeight = frame->height;
    bool direct = directLayout(frame, &stride, &sliceHeight);
    if (frame->width != mOutWidth || frame->height != mOutHeight || stride != mOutStride ||
        sliceHeight != mOutSliceHeight) {
        // A new size or layout: every output buffer must be back (and the
        // buffers of the old one delivered) before the new format is
        // announced.
        for (const Buffer& b : mOutputs) {
            if (b.owner != Owner::Codec) {
                return false;
            }
        }
        mOutWidth = frame->width;
        mOutHeight = frame->height;
        mOutStride = stride;
        mOutSliceHeight = sliceHeight;
        mFormatChangePending = true;
        mClientCond.notify_all();
    }
    if (mFreeOutputs.empty()) {
        return false;
    }
    size_t index = mFreeOutputs.front();
    Buffer& out = mOutputs[index];
    const size_t bytes = direct ? layoutBytes(stride, sliceHeight) : pictureBytes(frame->width, frame->height);
    // A picture to pack needs memory of the buffer's own, allocated the
    // first time the buffer carries one of this size.
    if (!direct && !reserve(out, bytes, 0)) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "no output buffer for %dx%d", frame->width, frame->height);
        av_frame_unref(frame);
        mHaveFrame = false;
        return true;
    }
    mFreeOutputs.pop_front();
    out.info.offset = 0;
    out.info.size = static_cast<int32_t>(bytes);
    out.info.presentationTimeUs = frame->best_effort_timestamp;
    out.info.flags = 0;
    av_frame_unref(out.frame.get());
    av_frame_move_ref(out.frame.get(), frame);
    out.packed = false;
    out.direct = direct;
    mHaveFrame = false;
    out.owner = Owner::Queued;
    mReadyOutputs.push_back(index);
    mClientCond.notify_all();
    return true;
}

int FFmpegMediaCodec::getBuffer(AVCodecContext* ctx, AVFrame* frame, int flags) {
    FFmpegMediaCodec* self = static_cast<FFmpegMediaCodec*>(ctx->opaque);
    if (self == nullptr || ctx->hw_frames_ctx != nullptr || !isPlanar420(frame->format) ||
        !(ctx->codec->capabilities & AV_CODEC_CAP_DR1)) {
        return avcodec_default_get_buffer2(ctx, frame, flags);
    }
    // The decoder writes whole macroblocks, and its motion compensation
    // reads a row or two past them: the sizes it asks for cover both.
    int width = frame->width;
    int height = frame->height;
    int lineAlign[AV_NUM_DATA_POINTERS];
    avcodec_align_dimensions2(ctx, &width, &height, lineAlign);
    int align = kMinStrideAlign;
    for (int i = 0; i < 3; ++i) {
        align = std::max(align, 2 * lineAlign[i]);
    }
    int stride = FFALIGN(width, align);
    int sliceHeight = FFALIGN(height, 2);
    size_t bytes = layoutBytes(stride, sliceHeight) + kPicturePadding;
    if (self->mPool == nullptr || self->mPoolBytes != bytes) {
        self->mPool.reset(av_buffer_pool_init(bytes, av_buffer_allocz));
        self->mPoolBytes = self->mPool != nullptr ? bytes : 0;
    }
    AVBufferRef* buf = self->mPool != nullptr ? av_buffer_pool_get(self->mPool.get()) : nullptr;
    if (buf == nullptr) {
        return AVERROR(ENOMEM);
    }
    size_t luma = static_cast<size_t>(stride) * static_cast<size_t>(sliceHeight);
    frame->buf[0] = buf;
    frame->data[0] = buf->data;
    frame->data[1] = buf->data + luma;
    frame->data[2] = buf->data + luma + luma / 4;
    frame->linesize[0] = stride;
    frame->linesize[1] = stride / 2;
    frame->linesize[2] = stride / 2;
    frame->extended_data = frame->data;
    return 0;
}

bool FFmpegMediaCodec::directLayout(const AVFrame* frame, int* stride, int* sliceHeight) {
    // Only getBuffer's pictures pass: one buffer, the planes back to back
    // from its start, chroma rows half as long. A picture cropped at the
    // top or left starts inside its buffer and is packed instead.
    const AVBufferRef* buf = frame->buf[0];
    if (!isPlanar420(frame->format) || frame->hw_frames_ctx != nullptr || buf == nullptr ||
        frame->buf[1] != nullptr || frame->data[0] != buf->data || frame->linesize[0] <= 0 ||
        frame->linesize[0] % 2 != 0 || frame->linesize[1] != frame->linesize[0] / 2 ||
        frame->linesize[2] != frame->linesize[1] || frame->linesize[0] < frame->width) {
        return false;
    }
    ptrdiff_t luma = frame->data[1] - frame->data[0];
    if (luma <= 0 || luma % frame->linesize[0] != 0) {
        return false;
    }
    ptrdiff_t rows = luma / frame->linesize[0];
    if (rows % 2 != 0 || rows < frame->height || frame->data[2] - frame->data[1] != luma / 4 ||
        layoutBytes(frame->linesize[0], static_cast<int>(rows)) > buf->size) {
        return false;
    }
    *stride = frame->linesize[0];
    *sliceHeight = static_cast<int>(rows);
    return true;
}

int FFmpegMediaCodec::copyFrame(const AVFrame* frame, uint8_t* dst, size_t capacity) {
    const AVFrame* src = frame;
    if (frame->hw_frames_ctx != nullptr) {
        // A hardware picture is brought into memory first.
        av_frame_unref(mSwFrame.get());
        if (av_hwframe_transfer_data(mSwFrame.get(), frame, 0) < 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "av_hwframe_transfer_data error");
            return -1;
        }
        src = mSwFrame.get();
    }
    int width = frame->width;
    int height = frame->height;
    size_t bytes = pictureBytes(width, height);
    if (bytes == 0 || bytes > capacity) {
        return -1;
    }
    if (src->format == AV_PIX_FMT_YUV420P || src->format == AV_PIX_FMT_YUVJ420P) {
        int n = av_image_copy_to_buffer(dst, static_cast<int>(capacity), src->data, src->linesize,
                                        AV_PIX_FMT_YUV420P, width, height, 1);
        return n < 0 ? -1 : n;
    }
    // Any other layout (a hardware decoder's NV12, high bit depth, 4:2:2) is
    // converted into the planar 4:2:0 the contract promises.
    mSwsContext = sws_getCachedContext(mSwsContext, width, height, static_cast<AVPixelFormat>(src->format), width,
                                       height, AV_PIX_FMT_YUV420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (mSwsContext == nullptr) {
        return -1;
    }
    uint8_t* planes[4];
    int linesizes[4];
    if (av_image_fill_arrays(planes, linesizes, dst, AV_PIX_FMT_YUV420P, width, height, 1) < 0) {
        return -1;
    }
    sws_scale(mSwsContext, src->data, src->linesize, 0, height, planes, linesizes);
    return static_cast<int>(bytes);
}
