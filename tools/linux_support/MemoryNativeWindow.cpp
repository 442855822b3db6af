#include "MemoryNativeWindow.h"

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <limits>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include "Common/FFmpegPtr.h"

namespace {
// Freed buffers kept for reuse beyond the kept ones.
constexpr size_t kFreePoolLimit = 4;
}  // namespace

MemoryNativeWindow::MemoryNativeWindow()
    : mConnected(false),
      mApi(0),
      mUsage(0),
      mScalingMode(0),
      mTransform(0),
      mWidth(0),
      mHeight(0),
      mFormat(0),
      mStride(0),
      mKeepLimit(std::numeric_limits<size_t>::max()),
      mQueued(0),
      mCalls(),
      mFailResult(),
      mFailTimes() {
    mDequeued.reserve(8);
    mFree.reserve(kFreePoolLimit + 1);
}

MemoryNativeWindow::~MemoryNativeWindow() = default;

bool MemoryNativeWindow::plannedFailure(Call call, int* result) {
    int i = static_cast<int>(call);
    mCalls[i] += 1;
    if (mFailTimes[i] > 0) {
        mFailTimes[i] -= 1;
        *result = mFailResult[i];
        return true;
    }
    return false;
}

int MemoryNativeWindow::apiConnect(int api) {
    std::lock_guard<std::mutex> lock(mMutex);
    int result = 0;
    if (plannedFailure(Call::Connect, &result)) {
        return result;
    }
    if (mConnected) {
        return -EINVAL;
    }
    mConnected = true;
    mApi = api;
    return 0;
}

int MemoryNativeWindow::apiDisconnect(int api) {
    std::lock_guard<std::mutex> lock(mMutex);
    int result = 0;
    if (plannedFailure(Call::Disconnect, &result)) {
        return result;
    }
    if (!mConnected || mApi != api) {
        return -EINVAL;
    }
    mConnected = false;
    mApi = 0;
    return 0;
}

int MemoryNativeWindow::setUsage(uint32_t usage) {
    std::lock_guard<std::mutex> lock(mMutex);
    int result = 0;
    if (plannedFailure(Call::SetUsage, &result)) {
        return result;
    }
    mUsage = usage;
    return 0;
}

int MemoryNativeWindow::setScalingMode(int mode) {
    std::lock_guard<std::mutex> lock(mMutex);
    int result = 0;
    if (plannedFailure(Call::SetScalingMode, &result)) {
        return result;
    }
    mScalingMode = mode;
    return 0;
}

int MemoryNativeWindow::setBuffersTransform(int transform) {
    std::lock_guard<std::mutex> lock(mMutex);
    int result = 0;
    if (plannedFailure(Call::SetTransform, &result)) {
        return result;
    }
    mTransform = transform;
    return 0;
}

int MemoryNativeWindow::setBuffersGeometry(int width, int height, int format) {
    std::lock_guard<std::mutex> lock(mMutex);
    int result = 0;
    if (plannedFailure(Call::SetGeometry, &result)) {
        return result;
    }
    if (width < 0 || height < 0) {
        return -EINVAL;
    }
    mWidth = width;
    mHeight = height;
    mFormat = format;
    return 0;
}

int MemoryNativeWindow::yv12ChromaStride(int stride) { return ((stride / 2) + 15) & ~15; }

size_t MemoryNativeWindow::yv12Size(int stride, int height) {
    size_t luma = static_cast<size_t>(stride) * static_cast<size_t>(height);
    size_t chroma = static_cast<size_t>(yv12ChromaStride(stride)) * static_cast<size_t>((height + 1) / 2);
    return luma + 2 * chroma;
}

int MemoryNativeWindow::dequeueBuffer(NativeWindowBuffer** buffer) {
    std::lock_guard<std::mutex> lock(mMutex);
    int result = 0;
    if (plannedFailure(Call::Dequeue, &result)) {
        return result;
    }
    if (buffer == nullptr || mWidth < 1 || mHeight < 1 || mFormat != HAL_PIXEL_FORMAT_YV12) {
        return -EINVAL;
    }
    int stride = mStride > 0 ? mStride : (mWidth + 15) & ~15;
    size_t bytes = yv12Size(stride, mHeight);
    std::unique_ptr<Slot> slot;
    if (!mFree.empty()) {
        slot = std::move(mFree.back());
        mFree.pop_back();
    } else {
        slot.reset(new Slot());
    }
    // Same size: no allocation.
    slot->bytes.resize(bytes);
    slot->header.width = mWidth;
    slot->header.height = mHeight;
    slot->header.stride = stride;
    slot->header.format = mFormat;
    slot->header.handle = slot.get();
    slot->transform = mTransform;
    slot->locked = false;
    slot->sequence = 0;
    *buffer = &slot->header;
    mDequeued.push_back(std::move(slot));
    return 0;
}

MemoryNativeWindow::Slot* MemoryNativeWindow::findDequeued(NativeWindowBuffer* buffer, size_t* position) {
    for (size_t i = 0; i < mDequeued.size(); ++i) {
        if (&mDequeued[i]->header == buffer) {
            *position = i;
            return mDequeued[i].get();
        }
    }
    return nullptr;
}

int MemoryNativeWindow::lockBuffer(NativeWindowBuffer* buffer, uint32_t /*usage*/, const NativeWindowRect& bounds,
                                   void** address) {
    std::lock_guard<std::mutex> lock(mMutex);
    int result = 0;
    if (plannedFailure(Call::Lock, &result)) {
        return result;
    }
    size_t position = 0;
    Slot* slot = findDequeued(buffer, &position);
    if (slot == nullptr || slot->locked || address == nullptr || bounds.left < 0 || bounds.top < 0 ||
        bounds.right > slot->header.width || bounds.bottom > slot->header.height) {
        return -EINVAL;
    }
    slot->locked = true;
    *address = slot->bytes.data();
    return 0;
}

int MemoryNativeWindow::unlockBuffer(NativeWindowBuffer* buffer) {
    std::lock_guard<std::mutex> lock(mMutex);
    int result = 0;
    if (plannedFailure(Call::Unlock, &result)) {
        return result;
    }
    size_t position = 0;
    Slot* slot = findDequeued(buffer, &position);
    if (slot == nullptr || !slot->locked) {
        return -EINVAL;
    }
    slot->locked = false;
    return 0;
}

int MemoryNativeWindow::queueBuffer(NativeWindowBuffer* buffer, int /*fenceFd*/) {
    {
        std::lock_guard<std::mutex> lock(mMutex);
        int result = 0;
        if (plannedFailure(Call::Queue, &result)) {
            return result;
        }
        size_t position = 0;
        Slot* slot = findDequeued(buffer, &position);
        if (slot == nullptr || slot->locked) {
            return -EINVAL;
        }
        std::unique_ptr<Slot> owned = std::move(mDequeued[position]);
        mDequeued.erase(mDequeued.begin() + static_cast<std::ptrdiff_t>(position));
        owned->sequence = mQueued++;
        if (mKeepLimit == 0) {
            if (mFree.size() < kFreePoolLimit) {
                mFree.push_back(std::move(owned));
            }
        } else {
            if (mKept.size() >= mKeepLimit) {
                std::unique_ptr<Slot> oldest = std::move(mKept.front());
                mKept.erase(mKept.begin());
                if (mFree.size() < kFreePoolLimit) {
                    mFree.push_back(std::move(oldest));
                }
            }
            mKept.push_back(std::move(owned));
        }
    }
    mQueuedCond.notify_all();
    return 0;
}

void MemoryNativeWindow::failCall(Call call, int result, int times) {
    std::lock_guard<std::mutex> lock(mMutex);
    mFailResult[static_cast<int>(call)] = result;
    mFailTimes[static_cast<int>(call)] = times;
}

void MemoryNativeWindow::setStride(int stride) {
    std::lock_guard<std::mutex> lock(mMutex);
    mStride = stride;
}

void MemoryNativeWindow::setKeepLimit(size_t limit) {
    std::lock_guard<std::mutex> lock(mMutex);
    mKeepLimit = limit;
    if (limit != std::numeric_limits<size_t>::max()) {
        mKept.reserve(limit + 1);
    }
    while (mKept.size() > limit) {
        mKept.erase(mKept.begin());
    }
}

bool MemoryNativeWindow::waitForQueued(uint64_t count, int timeoutMs) const {
    std::unique_lock<std::mutex> lock(mMutex);
    return mQueuedCond.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return mQueued >= count; });
}

uint64_t MemoryNativeWindow::queuedCount() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mQueued;
}

size_t MemoryNativeWindow::keptCount() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mKept.size();
}

MemoryNativeWindow::QueuedBuffer MemoryNativeWindow::kept(size_t index) const {
    std::lock_guard<std::mutex> lock(mMutex);
    QueuedBuffer out;
    if (index >= mKept.size()) {
        return out;
    }
    const Slot& slot = *mKept[index];
    out.sequence = slot.sequence;
    out.width = slot.header.width;
    out.height = slot.header.height;
    out.stride = slot.header.stride;
    out.format = slot.header.format;
    out.transform = slot.transform;
    out.bytes = slot.bytes;
    return out;
}

int MemoryNativeWindow::callCount(Call call) const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mCalls[static_cast<int>(call)];
}

bool MemoryNativeWindow::isConnected() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mConnected;
}

int MemoryNativeWindow::connectedApi() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mApi;
}

uint32_t MemoryNativeWindow::usage() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mUsage;
}

int MemoryNativeWindow::scalingMode() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mScalingMode;
}

int MemoryNativeWindow::transform() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mTransform;
}

int MemoryNativeWindow::geometryWidth() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mWidth;
}

int MemoryNativeWindow::geometryHeight() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mHeight;
}

int MemoryNativeWindow::geometryFormat() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mFormat;
}

int MemoryNativeWindow::writePng(const QueuedBuffer& buffer, const std::string& path) {
    if (buffer.width < 1 || buffer.height < 1 || buffer.format != HAL_PIXEL_FORMAT_YV12 ||
        buffer.bytes.size() < yv12Size(buffer.stride, buffer.height)) {
        return AVERROR(EINVAL);
    }
    const int w = buffer.width;
    const int h = buffer.height;
    const int chromaStride = yv12ChromaStride(buffer.stride);
    const uint8_t* base = buffer.bytes.data();
    const size_t lumaBytes = static_cast<size_t>(buffer.stride) * static_cast<size_t>(h);
    // YV12 keeps V before U; FFmpeg's planar 4:2:0 lists Y, U, V.
    const uint8_t* src[4] = {base, base + lumaBytes + static_cast<size_t>(h * chromaStride) / 2, base + lumaBytes,
                             nullptr};
    const int srcLinesize[4] = {buffer.stride, chromaStride, chromaStride, 0};

    kavra::ScopedAVFrame rgb = kavra::makeScopedAVFrame();
    if (!rgb) {
        return AVERROR(ENOMEM);
    }
    rgb->format = AV_PIX_FMT_RGB24;
    rgb->width = w;
    rgb->height = h;
    int ret = av_frame_get_buffer(rgb.get(), 0);
    if (ret < 0) {
        return ret;
    }
    kavra::ScopedSwsContext sws(sws_getContext(w, h, AV_PIX_FMT_YUV420P, w, h, AV_PIX_FMT_RGB24, SWS_BILINEAR,
                                               nullptr, nullptr, nullptr));
    if (!sws) {
        return AVERROR(EINVAL);
    }
    sws_scale(sws.get(), src, srcLinesize, 0, h, rgb->data, rgb->linesize);

    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (codec == nullptr) {
        return AVERROR_ENCODER_NOT_FOUND;
    }
    kavra::ScopedAVCodecContext ctx(avcodec_alloc_context3(codec));
    if (!ctx) {
        return AVERROR(ENOMEM);
    }
    ctx->width = w;
    ctx->height = h;
    ctx->pix_fmt = AV_PIX_FMT_RGB24;
    ctx->time_base = AVRational{1, 25};
    ret = avcodec_open2(ctx.get(), codec, nullptr);
    if (ret < 0) {
        return ret;
    }
    ret = avcodec_send_frame(ctx.get(), rgb.get());
    if (ret < 0) {
        return ret;
    }
    kavra::ScopedAVPacket packet = kavra::makeScopedAVPacket();
    if (!packet) {
        return AVERROR(ENOMEM);
    }
    ret = avcodec_receive_packet(ctx.get(), packet.get());
    if (ret < 0) {
        return ret;
    }
    FILE* file = fopen(path.c_str(), "wb");
    if (file == nullptr) {
        return AVERROR(errno);
    }
    size_t written = fwrite(packet->data, 1, static_cast<size_t>(packet->size), file);
    int closed = fclose(file);
    if (written != static_cast<size_t>(packet->size) || closed != 0) {
        return AVERROR(EIO);
    }
    return 0;
}
