#include "trimmer/VideoReencoder.h"

#include "trimmer/TrimLog.h"
#include "trimmer/TrimTime.h"

using namespace trimtime;

VideoReencoder::VideoReencoder()
    : mSink(nullptr),
      mKeepLow(kBeginning),
      mKeepHigh(kForever),
      mDecoderPrimed(false),
      mEncoderUsed(false),
      mEncoderDrained(false),
      mEncoderFramePts(0),
      mFramesEncoded(0) {}

int VideoReencoder::openDecoder(const AVStream* stream) {
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (codec == nullptr) {
        ALOGV("Codec not found encoder. ");
        return -3;
    }
    mDecoder.reset(avcodec_alloc_context3(codec));
    if (!mDecoder || avcodec_parameters_to_context(mDecoder.get(), stream->codecpar) < 0) {
        ALOGV("Could not open encoder. ");
        return -4;
    }
    mDecoder->pkt_timebase = stream->time_base;
    // One decoding thread per core: re-encoding a whole range is bound by
    // decoding as much as by encoding (libavcodec's default is one thread).
    mDecoder->thread_count = 0;
#if defined(__SANITIZE_THREAD__)
    // Under ThreadSanitizer the decoder runs on the calling thread. Its
    // workers hand pictures and rows over through atomics and shared
    // buffers inside libavcodec that the sanitizer cannot see (frame
    // threads, and the HEVC decoder's slice threads), and none of this
    // engine's code runs on them.
    mDecoder->thread_count = 1;
#endif
    if (avcodec_open2(mDecoder.get(), codec, nullptr) < 0) {
        ALOGV("Could not open encoder. ");
        return -4;
    }
    mFrame.reset(av_frame_alloc());
    mEncodedPacket.reset(av_packet_alloc());
    for (auto& f : mScaledFrames) {
        f.reset(av_frame_alloc());
    }
    if (!mFrame || !mEncodedPacket || !mScaledFrames[0] || !mScaledFrames[1] || !mScaledFrames[2]) {
        return -4;
    }
    return 0;
}

void VideoReencoder::setEncoder(kavra::ScopedAVCodecContext encoder) {
    mEncoder = std::move(encoder);
    mEncoderUsed = false;
    mEncoderDrained = false;
    mEncoderFramePts = 0;
}

void VideoReencoder::setKeepWindow(int64_t low, int64_t high) {
    mKeepLow = low;
    mKeepHigh = high;
}

int VideoReencoder::reencodePacket(AVPacket* packet) {
    int ret = avcodec_send_packet(mDecoder.get(), packet);
    mDecoderPrimed = true;
    if (ret < 0) {
        ALOGV("Decode Error. ");
        return ret;
    }
    while ((ret = avcodec_receive_frame(mDecoder.get(), mFrame.get())) == 0) {
        int encoded = encodeFrame(mFrame.get());
        av_frame_unref(mFrame.get());
        if (encoded < 0) {
            return encoded;
        }
    }
    if (ret != AVERROR(EAGAIN) && ret != AVERROR_EOF) {
        ALOGV("Decode Error. ");
        return ret;
    }
    return 0;
}

AVFrame* VideoReencoder::convertForEncoder(AVFrame* frame) {
    AVCodecContext* enc = mEncoder.get();
    if (frame->format == enc->pix_fmt && frame->width == enc->width && frame->height == enc->height) {
        return frame;
    }
    mScaler.reset(sws_getCachedContext(mScaler.release(), frame->width, frame->height,
                                       static_cast<AVPixelFormat>(frame->format), enc->width, enc->height,
                                       enc->pix_fmt, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!mScaler) {
        return nullptr;
    }
    // A picture the encoder no longer references; allocated once per slot.
    AVFrame* out = nullptr;
    for (auto& candidate : mScaledFrames) {
        if (candidate->buf[0] == nullptr || av_frame_is_writable(candidate.get())) {
            out = candidate.get();
            break;
        }
    }
    if (out == nullptr) {
        out = mScaledFrames[0].get();
        if (av_frame_make_writable(out) < 0) {
            return nullptr;
        }
    }
    if (out->buf[0] == nullptr) {
        out->format = enc->pix_fmt;
        out->width = enc->width;
        out->height = enc->height;
        if (av_frame_get_buffer(out, 0) < 0) {
            return nullptr;
        }
    }
    sws_scale(mScaler.get(), frame->data, frame->linesize, 0, frame->height, out->data, out->linesize);
    out->sample_aspect_ratio = frame->sample_aspect_ratio;
    return out;
}

int VideoReencoder::receivePackets() {
    int ret;
    while ((ret = avcodec_receive_packet(mEncoder.get(), mEncodedPacket.get())) == 0) {
        int w = mSink != nullptr ? mSink->writeEncodedPacket(mEncodedPacket.get()) : 0;
        if (w >= 0) {
            ++mFramesEncoded;
        } else {
            ALOGV("av_write_frame after encode Error %d", w);
        }
        av_packet_unref(mEncodedPacket.get());
    }
    return ret;
}

int VideoReencoder::encodeFrame(AVFrame* frame) {
    int64_t pts = frame->best_effort_timestamp != kNoTime ? frame->best_effort_timestamp : frame->pts;
    if (pts != kNoTime && (pts < mKeepLow || pts > mKeepHigh)) {
        ALOGV("ignored decode result .... %lld", static_cast<long long>(pts));
        return 0;
    }
    if (!mEncoder || mEncoderDrained) {
        // Cannot happen: every run of frames has an encoder of its own.
        ALOGE("encoder Error %d", AVERROR_EOF);
        return AVERROR_EOF;
    }
    AVFrame* in = convertForEncoder(frame);
    if (in == nullptr) {
        ALOGE("encoder Error %d", AVERROR(ENOMEM));
        return AVERROR(ENOMEM);
    }
    in->pict_type = AV_PICTURE_TYPE_NONE;
    in->pts = mEncoderFramePts++;
    mEncoderUsed = true;
    int ret = avcodec_send_frame(mEncoder.get(), in);
    if (ret < 0) {
        ALOGV("encoder Error %d", ret);
        return ret;
    }
    ret = receivePackets();
    if (ret != AVERROR(EAGAIN) && ret != AVERROR_EOF) {
        ALOGV("encoder Error %d", ret);
        return ret;
    }
    return 0;
}

void VideoReencoder::drainDecoder() {
    if (!mDecoderPrimed) {
        return;
    }
    mDecoderPrimed = false;
    AVCodecContext* dec = mDecoder.get();
    if (avcodec_send_packet(dec, nullptr) < 0) {
        ALOGV("flush Decode Error. ");
    } else {
        int ret;
        while ((ret = avcodec_receive_frame(dec, mFrame.get())) == 0) {
            int encoded = encodeFrame(mFrame.get());
            av_frame_unref(mFrame.get());
            if (encoded < 0) {
                break;
            }
        }
        if (ret != AVERROR_EOF && ret != 0) {
            ALOGV("flush Decode Error. ");
        }
        ALOGV(" decoder no more output .... ");
    }
    // Ready for the packets after the next seek.
    avcodec_flush_buffers(dec);
}

void VideoReencoder::drainEncoder() {
    if (!mEncoderUsed || mEncoderDrained) {
        return;
    }
    mEncoderDrained = true;
    if (avcodec_send_frame(mEncoder.get(), nullptr) < 0) {
        ALOGV("Flush Encoder: ret<0");
        return;
    }
    int ret = receivePackets();
    if (ret != AVERROR_EOF && ret != AVERROR(EAGAIN)) {
        ALOGV("Flush Encoder: ret<0");
        return;
    }
    ALOGV("Flush Encoder: gotFrame = 0");
}

void VideoReencoder::release() {
    mEncoder.reset();
    mDecoder.reset();
    mScaler.reset();
    for (auto& f : mScaledFrames) {
        f.reset();
    }
    mFrame.reset();
    mEncodedPacket.reset();
}
