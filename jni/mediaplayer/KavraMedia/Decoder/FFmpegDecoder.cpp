#include "Decoder/FFmpegDecoder.h"

#include <android/log.h>

#include <cstdint>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
#include <libavutil/samplefmt.h>
}

#include "Common/MediaTime.h"

namespace {
const char* const kTag = "FFmpegDecoder";
}

FFmpegDecoder::FFmpegDecoder() : mFrameCount(0), mMediaType(-1), mNextPts(AV_NOPTS_VALUE) {}

FFmpegDecoder::~FFmpegDecoder() {
    stop();
    release();
}

int FFmpegDecoder::create(AVStream* pInStream) { return create(pInStream, 10, 0); }

int FFmpegDecoder::create(AVStream* pInStream, int withOutputQueue, int /*extra*/) {
    // The decoding thread uses the codec context and the output slots that a
    // new create would free; stop() first.
    if (mThread.joinable()) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->decoder is running");
        return -1;
    }
    mStream = pInStream;
    if (pInStream == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->pInStream is null.");
        return -1;
    }
    const AVCodec* codec = avcodec_find_decoder(pInStream->codecpar->codec_id);
    if (codec == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->no find decoder for pInStream.");
        return -1;
    }
    // The decoder owns its codec context, made from the stream's parameters.
    mCodecContext.reset(avcodec_alloc_context3(codec));
    if (mCodecContext == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->avcodec_open2 error:%d", AVERROR(ENOMEM));
        return AVERROR(ENOMEM);
    }
    int ret = avcodec_parameters_to_context(mCodecContext.get(), pInStream->codecpar);
    if (ret >= 0) {
        mCodecContext->pkt_timebase = pInStream->time_base;
        ret = avcodec_open2(mCodecContext.get(), codec, nullptr);
    }
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->avcodec_open2 error:%d", ret);
        mCodecContext.reset();
        return ret;
    }
    mMediaType = mCodecContext->codec_type;
    mNextPts = AV_NOPTS_VALUE;
    if (mFrame == nullptr) {
        mFrame = kavra::makeScopedAVFrame();
        if (mFrame == nullptr) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "create->avcodec_alloc_frame error");
            return -1;
        }
    }
    if (withOutputQueue < 1) {
        return 0;
    }
    ret = mOutputQueue.create(kOutputSlots);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "create->BufferQueue.create error:%d", ret);
        return ret;
    }
    mFrameBuffer.type = FRAME_BUFFER_FRAME;
    return 0;
}

int FFmpegDecoder::configure(void* /*surface*/, void* /*extra*/) { return 0; }

int FFmpegDecoder::start() {
    if (mThread.joinable()) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "start->already started");
        return -1;
    }
    mInputQueue.start();
    mOutputQueue.start();
    updateStatus(DECODER_STATUS_IDLE);
    mThread = std::thread(&FFmpegDecoder::onDecoder, this);
    return 0;
}

int FFmpegDecoder::stop() {
    updateStatus(DECODER_STATUS_STOPPED);
    mInputQueue.abort();
    mInputQueue.flush();
    mOutputQueue.abort();
    mOutputQueue.flush();
    joinThread();
    return 0;
}

int FFmpegDecoder::release() {
    // Nothing may be freed under a running thread.
    if (mThread.joinable()) {
        stop();
    }
    mCodecContext.reset();
    mStream = nullptr;
    mInputQueue.flush();
    mOutputQueue.release();
    resetCounters();
    return 0;
}

void FFmpegDecoder::reset() { resetCounters(); }

void FFmpegDecoder::resetCounters() {
    mFrameCount = 0;
    mFlushing = false;
    mMediaType = -1;
    mInputQueue.setMaxSize(kInputQueueBytes);
    forceStatus(DECODER_STATUS_IDLE);
}

void FFmpegDecoder::flushCodec() {
    mNextPts = AV_NOPTS_VALUE;
    if (mCodecContext != nullptr) {
        avcodec_flush_buffers(mCodecContext.get());
    }
    if (mFrame != nullptr) {
        av_frame_unref(mFrame.get());
    }
}

int FFmpegDecoder::decodeInner(AVPacket* pkt) {
    if (mMediaType != AVMEDIA_TYPE_VIDEO && mMediaType != AVMEDIA_TYPE_AUDIO) {
        return 0;
    }
    return decodePacket(pkt);
}

void FFmpegDecoder::onDecoder() {
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "onDecoder thread begin.");
    AVPacket pkt;
    for (;;) {
        if (waitFor(DECODER_STATUS_FLUSHING | DECODER_STATUS_RUNNING) == 0) {
            break;
        }
        memset(&pkt, 0, sizeof(pkt));
        if (mInputQueue.get(&pkt, -1) < 0) {
            if (mFlushing) {
                onFlushRequested();
                continue;
            }
            __android_log_print(ANDROID_LOG_WARN, kTag, "abort getPacket, mStatus:%d", getStatus());
            break;
        }
        if (mInputQueue.isEndPacket(&pkt)) {
            drain();
            continue;
        }
        int type = mMediaType;
        // An empty packet would start draining the codec; only the
        // end-of-stream marker may do that.
        if ((type == AVMEDIA_TYPE_VIDEO || type == AVMEDIA_TYPE_AUDIO) && pkt.size > 0) {
            int ret = decodePacket(&pkt);
            if (ret < 0) {
                __android_log_print(ANDROID_LOG_ERROR, kTag, "decoder error:%d", ret);
            }
        }
        av_packet_unref(&pkt);
    }
}

void FFmpegDecoder::drain() {
    AVCodecContext* ctx = mCodecContext.get();
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "maxDelayFrameCount:%d", ctx != nullptr ? ctx->delay : 0);
    int type = mMediaType;
    if (ctx != nullptr && (type == AVMEDIA_TYPE_VIDEO || type == AVMEDIA_TYPE_AUDIO) && !mFlushing &&
        getStatus() != DECODER_STATUS_STOPPED) {
        // A null packet makes the codec give up every frame it holds; the
        // codec then accepts new packets only after a flush of its buffers.
        int ret = decodePacket(nullptr);
        if (ret < 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "decoder error:%d", ret);
        }
        avcodec_flush_buffers(ctx);
    }
    // Fed again after its end, the stream starts over.
    mNextPts = AV_NOPTS_VALUE;
    mFrameBuffer.durationMs = 0;
    mFrameBuffer.endMs = 0;
    mFrameBuffer.ptsMs = 0;
    mFrameBuffer.size = 0;
    mFrameBuffer.data = mFrame.get();
    mOutputQueue.queueInputBuffer(&mFrameBuffer, -1);
    if (mFrame != nullptr) {
        av_frame_unref(mFrame.get());
    }
}

int FFmpegDecoder::decodePacket(AVPacket* pkt) {
    AVCodecContext* ctx = mCodecContext.get();
    if (ctx == nullptr || mFrame == nullptr) {
        return -1;
    }
    int result = avcodec_send_packet(ctx, pkt);
    if (result == AVERROR_EOF) {
        // Already draining: nothing more to send, frames may still be there.
        result = 0;
    }
    for (;;) {
        if (getStatus() == DECODER_STATUS_STOPPED) {
            break;
        }
        int ret = avcodec_receive_frame(ctx, mFrame.get());
        if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) {
            break;
        }
        if (ret < 0) {
            if (result >= 0) {
                result = ret;
            }
            break;
        }
        queueFrame();
    }
    if (result < 0) {
        return result;
    }
    return pkt != nullptr ? pkt->size : 0;
}

int64_t FFmpegDecoder::frameTicks(const AVFrame* frame) {
    // A frame without a time (raw elementary streams carry none) is placed
    // right after the frame before it: that frame's time plus its duration.
    // Frames leave the codec in presentation order, so this continues the
    // stream's own timeline instead of handing out the no-time value, which
    // would read as a time from before the start. The first such frame of a
    // stream, or after a flush, starts at the stream's start time (0 when
    // unknown). Sums are kept in ticks so that rounding does not add up.
    int64_t pts = frame->best_effort_timestamp;
    if (pts == AV_NOPTS_VALUE) {
        pts = mNextPts;
        if (pts == AV_NOPTS_VALUE) {
            pts = mStream != nullptr && mStream->start_time != AV_NOPTS_VALUE ? mStream->start_time : 0;
        }
    }
    AVRational timeBase = mStream != nullptr ? mStream->time_base : mCodecContext->pkt_timebase;
    int64_t duration = frame->pkt_duration;
    if (duration <= 0 && timeBase.num > 0 && timeBase.den > 0) {
        // No duration either: one frame interval at the stream's frame
        // rate, or the samples' length for audio.
        if (frame->nb_samples > 0 && frame->sample_rate > 0) {
            duration = av_rescale_q(frame->nb_samples, AVRational{1, frame->sample_rate}, timeBase);
        } else if (mStream != nullptr && mStream->avg_frame_rate.num > 0 && mStream->avg_frame_rate.den > 0) {
            duration = av_rescale_q(1, av_inv_q(mStream->avg_frame_rate), timeBase);
        }
    }
    // Damaged streams may carry times near the limit; the sum saturates.
    mNextPts = duration > 0 && pts <= INT64_MAX - duration ? pts + duration : pts;
    return pts;
}

void FFmpegDecoder::queueFrame() {
    AVCodecContext* ctx = mCodecContext.get();
    AVFrame* frame = mFrame.get();
    FrameBuffer& fb = mFrameBuffer;
    fb.type = FRAME_BUFFER_FRAME;
    fb.data = frame;
    fb.format = frame->format;
    if (ctx->codec_type == AVMEDIA_TYPE_VIDEO) {
        fb.size = av_image_get_buffer_size(ctx->pix_fmt, ctx->width, ctx->height, 1);
        if (fb.size <= 0) {
            fb.size = av_image_get_buffer_size(static_cast<AVPixelFormat>(frame->format), frame->width,
                                               frame->height, 1);
        }
        fb.width = frame->width;
        fb.height = frame->height;
    } else {
        fb.size = frame->ch_layout.nb_channels * frame->nb_samples * av_get_bytes_per_sample(ctx->sample_fmt);
        fb.nbSamples = frame->nb_samples;
        fb.channels = frame->ch_layout.nb_channels;
        fb.sampleRate = frame->sample_rate;
    }
    // A frame always carries a payload; size 0 would read as end of stream.
    if (fb.size <= 0) {
        fb.size = 1;
    }
    AVRational timeBase = mStream != nullptr ? mStream->time_base : ctx->pkt_timebase;
    const int64_t ticks = frameTicks(frame);
    fb.ptsMs = MediaTime::ticksToMs(ticks, timeBase);
    fb.durationMs = MediaTime::ticksToMs(frame->pkt_duration, timeBase);
    fb.endMs = MediaTime::endMs(ticks, frame->pkt_duration, timeBase);
    mFrameCount += 1;
    // The frame's reference moves into the slot; if the queue refuses it
    // (stopped, flushing, or never created) the frame is dropped.
    mOutputQueue.queueInputBuffer(&fb, -1);
    av_frame_unref(frame);
}
