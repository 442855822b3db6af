#include "Decoder/MediaCodecVideoDecoder.h"

#include <android/log.h>
#include <unistd.h>

#include <cstring>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
#include <libavutil/time.h>
}

#include "Common/MediaTime.h"

namespace {
const char* const kTag = "MediaCodecVideoDecoder";
const char* const kMimeAvc = "video/avc";
const uint8_t kStartCode[4] = {0, 0, 0, 1};
// While a size change waits for the consumer to give back its slots.
constexpr useconds_t kSlotPollUs = 2000;
}  // namespace

MediaCodecVideoDecoder::MediaCodecVideoDecoder()
    : MediaCodecVideoDecoder([](const char* mime) { return MediaCodec::createDecoderByType(mime); }) {}

MediaCodecVideoDecoder::MediaCodecVideoDecoder(CodecFactory factory)
    : mFactory(std::move(factory)), mDataSize(0), mOutWidth(0), mOutHeight(0), mOutStride(0), mOutSliceHeight(0),
      mOutColor(0), mPacketDuration(0), mOutputCount(0), mUntimedInputs(0), mNextPts(AV_NOPTS_VALUE) {}

MediaCodecVideoDecoder::~MediaCodecVideoDecoder() {
    stop();
    release();
}

bool MediaCodecVideoDecoder::parseCodecSpecificData(const uint8_t* e, int size, std::vector<uint8_t>* csd0,
                                                    std::vector<uint8_t>* csd1) {
    // Record layout: version, profile, compatibility, level, length size,
    // SPS count (bytes 0-5); the first SPS's 16-bit length at 6 and its bytes
    // from 8; the PPS count at 8 + spsLen, the first PPS's length at
    // 9 + spsLen and its bytes from 11 + spsLen.
    if (e == nullptr || size < 8 || e[0] != 1) {
        return false;
    }
    int spsLen = e[6] * 256 + e[7];
    if (spsLen == 0 || 8 + spsLen + 3 > size) {
        return false;
    }
    int ppsLen = e[spsLen + 9] * 256 + e[spsLen + 10];
    if (ppsLen == 0 || spsLen + 11 + ppsLen > size) {
        return false;
    }
    csd0->assign(kStartCode, kStartCode + 4);
    csd0->insert(csd0->end(), e + 8, e + 8 + spsLen);
    csd1->assign(kStartCode, kStartCode + 4);
    csd1->insert(csd1->end(), e + spsLen + 11, e + spsLen + 11 + ppsLen);
    return true;
}

int MediaCodecVideoDecoder::create(AVStream* pInStream) { return create(pInStream, 10, 0); }

int MediaCodecVideoDecoder::create(AVStream* pInStream, int /*withOutputQueue*/, int /*extra*/) {
    if (mThread.joinable()) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->decoder is running");
        return -1;
    }
    mStream = pInStream;
    if (pInStream == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->pInStream is null.");
        return -1;
    }
    const AVCodecParameters* par = pInStream->codecpar;
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "w:%d,h:%d,%lld", par->width, par->height,
                        static_cast<long long>(pInStream->start_time));
    MediaFormat format;
    format.setString(MediaFormat::KEY_MIME, kMimeAvc);
    format.setInt32(MediaFormat::KEY_WIDTH, par->width);
    format.setInt32(MediaFormat::KEY_HEIGHT, par->height);
    AVRational rate = pInStream->avg_frame_rate;
    format.setInt32(MediaFormat::KEY_FRAME_RATE, rate.den != 0 ? rate.num / rate.den : 0);
    if (par->extradata_size > 8) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "extradata_size:%d", par->extradata_size);
        std::vector<uint8_t> csd0;
        std::vector<uint8_t> csd1;
        if (parseCodecSpecificData(par->extradata, par->extradata_size, &csd0, &csd1)) {
            format.setBuffer(MediaFormat::KEY_CSD_0, csd0.data(), csd0.size());
            format.setBuffer(MediaFormat::KEY_CSD_1, csd1.data(), csd1.size());
        } else {
            // Not a configuration record (Annex B streams carry their
            // parameter sets in band) or a damaged one.
            __android_log_print(ANDROID_LOG_WARN, kTag, "extradata without a usable configuration record");
        }
    }
    format.setInt32(MediaFormat::KEY_COLOR_FORMAT, MediaCodec::COLOR_FormatYUV420Planar);

    mCodec.reset();
    mCodec = mFactory ? mFactory(kMimeAvc) : nullptr;
    if (mCodec == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->AMediaCodec_createDecoderByType error");
        return -1;
    }
    if (mCodec->configure(&format, nullptr, nullptr, 0) != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->AMediaCodec_configure error");
        return -1;
    }
    if (mFrame == nullptr) {
        mFrame = kavra::makeScopedAVFrame();
    }
    if (mFrame == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->avcodec_alloc_frame error");
        return -1;
    }
    mFrame->width = par->width;
    mFrame->height = par->height;
    mFrame->format = AV_PIX_FMT_YUV420P;
    mDataSize = av_image_get_buffer_size(AV_PIX_FMT_YUV420P, par->width, par->height, 1);

    const AVBitStreamFilter* filter = av_bsf_get_by_name("h264_mp4toannexb");
    AVBSFContext* bsf = nullptr;
    int ret = filter != nullptr ? av_bsf_alloc(filter, &bsf) : AVERROR_BSF_NOT_FOUND;
    mBsfContext.reset(bsf);
    if (ret >= 0) {
        ret = avcodec_parameters_copy(mBsfContext->par_in, par);
    }
    if (ret >= 0) {
        mBsfContext->time_base_in = pInStream->time_base;
        ret = av_bsf_init(mBsfContext.get());
    }
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->av_bsf_init error:%d", ret);
        mBsfContext.reset();
        return ret;
    }
    mFilteredPacket = kavra::makeScopedAVPacket();
    if (mFilteredPacket == nullptr) {
        return AVERROR(ENOMEM);
    }
    mOutWidth = 0;
    mOutHeight = 0;
    mPacketDuration = 0;
    mUntimedInputs = 0;
    mNextPts = AV_NOPTS_VALUE;
    return 0;
}

int MediaCodecVideoDecoder::configure(void* /*surface*/, void* /*extra*/) { return 0; }

int MediaCodecVideoDecoder::start() {
    if (mThread.joinable() || mCodec == nullptr || mBsfContext == nullptr || mCodec->start() != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "MediaCodec_start error");
        return -1;
    }
    mInputQueue.start();
    mOutputQueue.start();
    forceStatus(DECODER_STATUS_IDLE);
    mThread = std::thread(&MediaCodecVideoDecoder::onDecoder, this);
    return 0;
}

int MediaCodecVideoDecoder::stop() {
    updateStatus(DECODER_STATUS_STOPPED);
    mInputQueue.abort();
    mOutputQueue.abort();
    mOutputQueue.flush();
    joinThread();
    // Only now, with the thread gone, may this thread use the codec.
    if (mCodec != nullptr) {
        mCodec->flush();
        mCodec->stop();
    }
    return 0;
}

int MediaCodecVideoDecoder::release() {
    if (mThread.joinable()) {
        stop();
    }
    mStream = nullptr;
    mBsfContext.reset();
    mCodec.reset();
    mOutputQueue.release();
    mInputQueue.flush();
    mFlushing = false;
    forceStatus(DECODER_STATUS_IDLE);
    return 0;
}

void MediaCodecVideoDecoder::flushCodec() {
    mUntimedInputs = 0;
    mNextPts = AV_NOPTS_VALUE;
    if (mCodec != nullptr) {
        mCodec->flush();
    }
    if (mBsfContext != nullptr) {
        av_bsf_flush(mBsfContext.get());
    }
}

bool MediaCodecVideoDecoder::interrupted() {
    if (mFlushing) {
        return true;
    }
    int status = getStatus();
    return isFinal(status);
}

void MediaCodecVideoDecoder::onDecoder() {
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "onDecoder thread begin.");
    AVPacket pkt;
    for (;;) {
        if (waitFor(DECODER_STATUS_FLUSHING | DECODER_STATUS_RUNNING) == 0) {
            __android_log_print(ANDROID_LOG_VERBOSE, kTag, "onDecoder thread finish.");
            return;
        }
        memset(&pkt, 0, sizeof(pkt));
        if (mInputQueue.get(&pkt, -1) < 0) {
            if (!mFlushing) {
                __android_log_print(ANDROID_LOG_WARN, kTag, "abort getPacket, mStatus:%d", getStatus());
                return;
            }
            onFlushRequested();
            continue;
        }
        if (mInputQueue.isEndPacket(&pkt)) {
            if (!mFlushing) {
                drainAtEndOfStream();
            }
            continue;
        }
        if (pkt.size > 0) {
            mPacketDuration = pkt.duration;
            // Each packet is followed by exactly one poll of the output; a
            // failed attempt to queue it frees an input buffer that way.
            for (;;) {
                if (interrupted()) {
                    break;
                }
                int queued = queueIntoDecoder(&pkt);
                onDecodeInner();
                if (queued == 0) {
                    break;
                }
            }
        }
        av_packet_unref(&pkt);
    }
}

void MediaCodecVideoDecoder::drainAtEndOfStream() {
    AVPacket end;
    memset(&end, 0, sizeof(end));
    bool queued = false;
    while (!interrupted()) {
        if (queueIntoDecoder(&end) == 0) {
            queued = true;
            break;
        }
        onDecodeInner();
    }
    // Every output buffer restarts the wait for the end; a codec that
    // stays silent too long is taken to have ended.
    uint64_t seen = mOutputCount;
    int64_t silentSinceUs = av_gettime_relative();
    while (queued && !interrupted()) {
        if (onDecodeInner() == 4) {
            break;
        }
        int64_t nowUs = av_gettime_relative();
        if (mOutputCount != seen) {
            seen = mOutputCount;
            silentSinceUs = nowUs;
        } else if (nowUs - silentSinceUs >= static_cast<int64_t>(kEndOfStreamWaitMs) * 1000) {
            __android_log_print(ANDROID_LOG_WARN, kTag, "no end of stream from the codec after %d ms, stream ended",
                                kEndOfStreamWaitMs);
            break;
        }
    }
    // A stream whose codec never announced a format still ends with a
    // record the consumer can see.
    if (!mOutputQueue.isCreated() && mStream != nullptr) {
        ensureOutputQueue(mStream->codecpar->width, mStream->codecpar->height);
    }
    mFrameBuffer.type = FRAME_BUFFER_PICTURE;
    mFrameBuffer.durationMs = 0;
    mFrameBuffer.endMs = 0;
    mFrameBuffer.ptsMs = 0;
    mFrameBuffer.size = 0;
    mFrameBuffer.data = mFrame.get();
    mOutputQueue.queueInputBuffer(&mFrameBuffer, -1);
    // After its end of stream the codec takes input again only once
    // flushed; packets that follow (a restart from the beginning) then
    // decode as the first ones did.
    if (queued && !interrupted()) {
        flushCodec();
    }
}

int MediaCodecVideoDecoder::queueIntoDecoder(AVPacket* pkt) {
    ssize_t index = mCodec->dequeueInputBuffer(kCodecTimeoutUs);
    if (index < 0) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "AMediaCodec_dequeueInputBuffer timeout.");
        return -1;
    }
    size_t slot = static_cast<size_t>(index);
    if (pkt->size == 0) {
        int ret = mCodec->queueInputBuffer(slot, 0, 0, 0, MediaCodec::BUFFER_FLAG_END_OF_STREAM);
        if (ret != 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "decoder error:%d", ret);
        }
        return 0;
    }
    size_t capacity = 0;
    uint8_t* buffer = mCodec->getInputBuffer(slot, &capacity);
    int64_t pts = pkt->pts;
    if (pts == AV_NOPTS_VALUE) {
        pts = pkt->dts != AV_NOPTS_VALUE ? pkt->dts : 0;
        if (pkt->dts == AV_NOPTS_VALUE) {
            mUntimedInputs += 1;
        }
    }
    uint32_t flags = (pkt->flags & AV_PKT_FLAG_KEY) ? MediaCodec::BUFFER_FLAG_KEY_FRAME : 0;
    // The filter takes the packet's payload; one packet in may give any
    // number of packets out, all of them parts of the same picture.
    size_t used = 0;
    bool overflow = false;
    int ret = av_bsf_send_packet(mBsfContext.get(), pkt);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "decoder error:%d", ret);
    }
    while (ret >= 0) {
        ret = av_bsf_receive_packet(mBsfContext.get(), mFilteredPacket.get());
        if (ret < 0) {
            if (ret != AVERROR(EAGAIN) && ret != AVERROR_EOF) {
                __android_log_print(ANDROID_LOG_ERROR, kTag, "decoder error:%d", ret);
            }
            break;
        }
        size_t n = static_cast<size_t>(mFilteredPacket->size);
        if (buffer != nullptr && !overflow && n <= capacity - used) {
            memcpy(buffer + used, mFilteredPacket->data, n);
            used += n;
        } else {
            overflow = true;
        }
        av_packet_unref(mFilteredPacket.get());
    }
    if (overflow) {
        // A truncated picture would only corrupt what follows: drop it.
        __android_log_print(ANDROID_LOG_ERROR, kTag, "input buffer of %zu bytes too small, packet dropped", capacity);
        used = 0;
    }
    ret = mCodec->queueInputBuffer(slot, 0, used, static_cast<uint64_t>(pts), flags);
    if (ret != 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "decoder error:%d", ret);
    }
    return 0;
}

int MediaCodecVideoDecoder::onDecodeInner() {
    MediaCodecBufferInfo info;
    memset(&info, 0, sizeof(info));
    ssize_t index = mCodec->dequeueOutputBuffer(&info, kCodecTimeoutUs);
    if (index >= 0) {
        mOutputCount += 1;
        size_t slot = static_cast<size_t>(index);
        if (info.size > 0) {
            size_t capacity = 0;
            uint8_t* data = mCodec->getOutputBuffer(slot, &capacity);
            if (data != nullptr) {
                deliverPicture(data, capacity, info);
            }
        }
        mCodec->releaseOutputBuffer(slot, info.size != 0);
        return (info.flags & MediaCodec::BUFFER_FLAG_END_OF_STREAM) ? 4 : 0;
    }
    if (index == MediaCodec::INFO_OUTPUT_FORMAT_CHANGED) {
        std::unique_ptr<MediaFormat> format = mCodec->getOutputFormat();
        if (format != nullptr) {
            __android_log_print(ANDROID_LOG_INFO, kTag, "format:%s", format->toString());
            resetOutPutFormatIfChanged(format.get());
        }
        __android_log_print(ANDROID_LOG_WARN, kTag, "AMEDIACODEC_INFO_OUTPUT_FORMAT_CHANGED.");
    } else if (index == MediaCodec::INFO_OUTPUT_BUFFERS_CHANGED) {
        __android_log_print(ANDROID_LOG_WARN, kTag, "AMEDIACODEC_INFO_OUTPUT_BUFFERS_CHANGED.");
    }
    return 0;
}

int MediaCodecVideoDecoder::resetOutPutFormatIfChanged(MediaFormat* format) {
    int32_t width = 0;
    int32_t height = 0;
    int32_t color = 0;
    format->getInt32(MediaFormat::KEY_WIDTH, &width);
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "format-outWidth:%d", width);
    format->getInt32(MediaFormat::KEY_HEIGHT, &height);
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "format-outHeight:%d", height);
    format->getInt32(MediaFormat::KEY_COLOR_FORMAT, &color);
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "format-outColor:%d", color);
    int32_t stride = width;
    int32_t sliceHeight = height;
    format->getInt32(MediaFormat::KEY_STRIDE, &stride);
    format->getInt32(MediaFormat::KEY_SLICE_HEIGHT, &sliceHeight);
    mOutWidth = width;
    mOutHeight = height;
    mOutStride = stride >= width ? stride : width;
    mOutSliceHeight = sliceHeight >= height ? sliceHeight : height;
    mOutColor = color;
    if (color == MediaCodec::COLOR_FormatYUV420Planar) {
        mFrame->format = AV_PIX_FMT_YUV420P;
    }
    mFrame->width = width;
    mFrame->height = height;
    mDataSize = av_image_get_buffer_size(AV_PIX_FMT_YUV420P, width, height, 1);
    mFrameBuffer.type = FRAME_BUFFER_PICTURE;
    // The first format creates the slots at once; a later change of size
    // replaces them before the first picture of the new size.
    if (!mOutputQueue.isCreated()) {
        return mOutputQueue.create(kOutputSlots, AV_PIX_FMT_YUV420P, width, height);
    }
    return 0;
}

bool MediaCodecVideoDecoder::ensureOutputQueue(int width, int height) {
    if (mOutputQueue.isCreated() && mOutputQueue.getWidth() == width && mOutputQueue.getHeight() == height &&
        mOutputQueue.getFormat() == AV_PIX_FMT_YUV420P) {
        return true;
    }
    if (mOutputQueue.isCreated()) {
        // The consumer may still read a slot of the old size; those slots
        // are freed only once it has given all of them back.
        while (mOutputQueue.getSize() > 0) {
            if (interrupted()) {
                return false;
            }
            usleep(kSlotPollUs);
        }
    }
    return mOutputQueue.create(kOutputSlots, AV_PIX_FMT_YUV420P, width, height) == 0;
}

int64_t MediaCodecVideoDecoder::pictureTicks(int64_t codecTicks) {
    // A packet without a time went in at time 0, and its picture comes out
    // at 0. Such a picture is placed right after the picture before it: that
    // picture's time plus its duration. Pictures leave the codec in
    // presentation order, so this continues the stream's own timeline
    // instead of stacking every picture at 0. The first one of a stream, or
    // after a flush, starts at the stream's start time (0 when unknown).
    int64_t pts = codecTicks;
    if (pts == 0 && mUntimedInputs > 0) {
        mUntimedInputs -= 1;
        pts = mNextPts;
        if (pts == AV_NOPTS_VALUE) {
            pts = mStream->start_time != AV_NOPTS_VALUE ? mStream->start_time : 0;
        }
    }
    int64_t duration = mPacketDuration;
    AVRational rate = mStream->avg_frame_rate;
    if (duration <= 0 && rate.num > 0 && rate.den > 0) {
        duration = av_rescale_q(1, av_inv_q(rate), mStream->time_base);
    }
    // Damaged streams may carry times near the limit; the sum saturates.
    mNextPts = duration > 0 && pts <= INT64_MAX - duration ? pts + duration : pts;
    return pts;
}

void MediaCodecVideoDecoder::deliverPicture(uint8_t* data, size_t capacity, const MediaCodecBufferInfo& info) {
    if (mOutColor != MediaCodec::COLOR_FormatYUV420Planar || mOutWidth < 1 || mOutHeight < 1) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "unsupported output format:%d %dx%d", mOutColor, mOutWidth,
                            mOutHeight);
        return;
    }
    // Planar 4:2:0 as the codec lays it out: `stride` bytes per luma row,
    // `sliceHeight` luma rows, then the two chroma planes at half size.
    size_t chromaStride = static_cast<size_t>((mOutStride + 1) / 2);
    size_t lumaBytes = static_cast<size_t>(mOutStride) * static_cast<size_t>(mOutSliceHeight);
    size_t chromaBytes = chromaStride * static_cast<size_t>((mOutSliceHeight + 1) / 2);
    size_t offset = info.offset > 0 ? static_cast<size_t>(info.offset) : 0;
    size_t needed = lumaBytes + 2 * chromaBytes;
    if (offset > capacity || needed > capacity - offset) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "output buffer of %zu bytes too small for %dx%d", capacity,
                            mOutWidth, mOutHeight);
        return;
    }
    if (!ensureOutputQueue(mOutWidth, mOutHeight)) {
        return;
    }
    uint8_t* base = data + offset;
    mFrame->data[0] = base;
    mFrame->data[1] = base + lumaBytes;
    mFrame->data[2] = base + lumaBytes + chromaBytes;
    mFrame->linesize[0] = mOutStride;
    mFrame->linesize[1] = static_cast<int>(chromaStride);
    mFrame->linesize[2] = static_cast<int>(chromaStride);
    FrameBuffer& fb = mFrameBuffer;
    AVRational timeBase = mStream->time_base;
    fb.type = FRAME_BUFFER_PICTURE;
    fb.data = mFrame.get();
    fb.size = mDataSize;
    const int64_t ticks = pictureTicks(static_cast<int64_t>(info.presentationTimeUs));
    fb.ptsMs = MediaTime::ticksToMs(ticks, timeBase);
    fb.endMs = MediaTime::endMs(ticks, mPacketDuration, timeBase);
    fb.format = AV_PIX_FMT_YUV420P;
    fb.width = mOutWidth;
    fb.height = mOutHeight;
    fb.durationMs = MediaTime::ticksToMs(mPacketDuration, timeBase);
    // The queue copies the planes into its slot, waiting while all are full.
    mOutputQueue.queueInputBuffer(&fb, -1);
    mFrame->data[0] = nullptr;
    mFrame->data[1] = nullptr;
    mFrame->data[2] = nullptr;
}
