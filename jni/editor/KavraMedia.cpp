#include "editor/KavraMedia.h"

#include <android/log.h>

#include "Common/MediaTime.h"
#include "Common/StreamRotation.h"

namespace {
const char* const kTag = "meeeKavraMedia";

#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, kTag, __VA_ARGS__)
#define LOGW(...) __android_log_print(ANDROID_LOG_WARN, kTag, __VA_ARGS__)

bool isDrainPacket(const AVPacket* packet) {
    return packet == nullptr || (packet->data == nullptr && packet->size == 0);
}
}  // namespace

KavraMedia::KavraMedia()
    : mVideoStreamIndex(-1), mCodec(nullptr), mVideoDraining(false), mAudioDraining(false),
      mAudioStreamIndex(-1), mAudioTrackCount(0), mLastResult(-1), mWidth(0), mHeight(0), mFrameRate(0),
      mHasBFrames(0), mRotation(0), mVideoMimeId(0), mSampleRate(0), mChannels(0) {}

// Members release themselves in reverse order: frames, codec contexts,
// then the input.
KavraMedia::~KavraMedia() = default;

int KavraMedia::setSource(const char* path) {
    if (path == nullptr) {
        LOGE("setSource->path is NULL");
        return -1;
    }
    AVFormatContext* context = nullptr;
    mLastResult = avformat_open_input(&context, path, nullptr, nullptr);
    if (mLastResult < 0) {
        LOGE("file:%s,setSource->avformat_open_input error:%d", path, mLastResult);
        return mLastResult;
    }
    mFormatContext.reset(context);
    mLastResult = avformat_find_stream_info(context, nullptr);
    if (mLastResult < 0) {
        LOGE("file:%s,setSource->no find stream info", path);
        return mLastResult;
    }
    mAudioTrackCount = 0;
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        if (context->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            ++mAudioTrackCount;
        }
    }
    mVideoStreamIndex = av_find_best_stream(context, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    mAudioStreamIndex = av_find_best_stream(context, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    return 0;
}

int KavraMedia::openVideoDecoder(bool singleThread) {
    NativeMutexLock lock(mMutex);
    if (mVideoStreamIndex < 0 || !mFormatContext) {
        LOGW("openVideoDecoder->no find video stream");
        return -1;
    }
    AVStream* stream = mFormatContext->streams[mVideoStreamIndex];
    mCodec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (mCodec == nullptr) {
        LOGE("openVideoDecoder->avcodec_find_decoder error");
        return -1;
    }
    // The decoder gets a context of its own, filled from the stream.
    mVideoCodecContext.reset(avcodec_alloc_context3(mCodec));
    if (!mVideoCodecContext) {
        mLastResult = AVERROR(ENOMEM);
        LOGE("openVideoDecoder->avcodec_open2 error:%d", mLastResult);
        return mLastResult;
    }
    AVCodecContext* context = mVideoCodecContext.get();
    mLastResult = avcodec_parameters_to_context(context, stream->codecpar);
    if (mLastResult < 0) {
        LOGE("openVideoDecoder->avcodec_open2 error:%d", mLastResult);
        return mLastResult;
    }
    context->pkt_timebase = stream->time_base;
    if (singleThread) {
        context->thread_count = 1;
    }
    mVideoDraining = false;
    mLastResult = avcodec_open2(context, mCodec, nullptr);
    if (mLastResult < 0) {
        LOGE("openVideoDecoder->avcodec_open2 error:%d", mLastResult);
        return mLastResult;
    }
    if (stream->avg_frame_rate.den != 0) {
        mFrameRate = stream->avg_frame_rate.num / stream->avg_frame_rate.den;
    }
    mHasBFrames = context->has_b_frames;
    mRotation = StreamRotation::read(stream);
    if (context->width >= 1 && context->height >= 1) {
        bool quarterTurn = mRotation == 90 || mRotation == 270;
        mWidth = quarterTurn ? context->height : context->width;
        mHeight = quarterTurn ? context->width : context->height;
        mVideoMimeId = mimeIdFor(context->codec_id);
        LOGW("VideoInfo MIME  %s ", mCodec->name);
        return 0;
    }
    LOGE("openVideoDecoder->width:%d height:%d", context->width, context->height);
    return -1;
}

int KavraMedia::openAudioDecoder(int wantedStream) {
    NativeMutexLock lock(mMutex);
    if (wantedStream < 0) {
        LOGW("openAudioDecoder->no find audio stream");
        return -1;
    }
    if (!mFormatContext) {
        return -1;
    }
    int index = av_find_best_stream(mFormatContext.get(), AVMEDIA_TYPE_AUDIO, wantedStream, -1, nullptr, 0);
    if (index < 0) {
        return -1;
    }
    mAudioStreamIndex = index;
    AVStream* stream = mFormatContext->streams[index];
    mCodec = avcodec_find_decoder(stream->codecpar->codec_id);
    if (mCodec == nullptr) {
        LOGE("openAudioDecoder->avcodec_find_decoder error");
        return -1;
    }
    mAudioCodecContext.reset(avcodec_alloc_context3(mCodec));
    if (!mAudioCodecContext) {
        mLastResult = AVERROR(ENOMEM);
        LOGE("openAudioDecoder->avcodec_open2 error:%d", mLastResult);
        return mLastResult;
    }
    AVCodecContext* context = mAudioCodecContext.get();
    mLastResult = avcodec_parameters_to_context(context, stream->codecpar);
    if (mLastResult >= 0) {
        context->pkt_timebase = stream->time_base;
        mLastResult = avcodec_open2(context, mCodec, nullptr);
    }
    if (mLastResult < 0) {
        LOGE("openAudioDecoder->avcodec_open2 error:%d", mLastResult);
        return mLastResult;
    }
    mAudioDraining = false;
    mSampleRate = context->sample_rate;
    mChannels = context->ch_layout.nb_channels;
    return 0;
}

int KavraMedia::prepare() {
    NativeMutexLock lock(mMutex);
    pVideoFrame = kavra::makeScopedAVFrame();
    mVideoScratch = kavra::makeScopedAVFrame();
    if (!pVideoFrame || !mVideoScratch) {
        LOGE("prepare->pVideoFrame alloc error");
        return -1;
    }
    pAudioFrame = kavra::makeScopedAVFrame();
    mAudioScratch = kavra::makeScopedAVFrame();
    if (!pAudioFrame || !mAudioScratch) {
        LOGE("prepare->pAudioFrame alloc error");
        return -1;
    }
    return 0;
}

int KavraMedia::seekFrame(int timeMs, int streamIndex, int flags) {
    NativeMutexLock lock(mMutex);
    if (!mFormatContext) {
        return -1;
    }
    mReadGuard.reset();
    return av_seek_frame(mFormatContext.get(), streamIndex, static_cast<int64_t>(timeMs) * 1000, flags);
}

int KavraMedia::readFrame(AVPacket* packet) {
    NativeMutexLock lock(mMutex);
    if (!mFormatContext || packet == nullptr) {
        return -1;
    }
    int ret = av_read_frame(mFormatContext.get(), packet);
    if (mReadGuard.onRead(ret, mFormatContext.get()) == ReadProgressGuard::READ_DAMAGED) {
        return AVERROR_EOF;
    }
    return ret;
}

bool KavraMedia::isInputDamaged() {
    NativeMutexLock lock(mMutex);
    return mReadGuard.damaged();
}

bool KavraMedia::isEndOfInput() {
    NativeMutexLock lock(mMutex);
    return mFormatContext && mFormatContext->pb != nullptr && avio_feof(mFormatContext->pb) != 0;
}

AVStream* KavraMedia::videoStream() {
    if (!mFormatContext || mVideoStreamIndex < 0) {
        return nullptr;
    }
    return mFormatContext->streams[mVideoStreamIndex];
}

int KavraMedia::decodeVideo(int* gotPicture, AVPacket* packet) {
    NativeMutexLock lock(mMutex);
    return decode(mVideoCodecContext.get(), pVideoFrame.get(), mVideoScratch.get(), &mVideoDraining, gotPicture,
                  packet);
}

int KavraMedia::decodeAudio(int* gotFrame, AVPacket* packet) {
    NativeMutexLock lock(mMutex);
    return decode(mAudioCodecContext.get(), pAudioFrame.get(), mAudioScratch.get(), &mAudioDraining, gotFrame,
                  packet);
}

void KavraMedia::flushVideoDecoder() {
    NativeMutexLock lock(mMutex);
    if (mVideoCodecContext) {
        avcodec_flush_buffers(mVideoCodecContext.get());
    }
    mVideoDraining = false;
}

// One step of the send/receive protocol with "got picture" results: at most
// one picture comes out per call, so callers can count the packets that
// have not yet given a picture.
int KavraMedia::decode(AVCodecContext* context, AVFrame* out, AVFrame* scratch, bool* draining, int* got,
                       AVPacket* packet) {
    int dummy = 0;
    if (got == nullptr) {
        got = &dummy;
    }
    *got = 0;
    if (context == nullptr || out == nullptr || scratch == nullptr || !avcodec_is_open(context)) {
        return -1;
    }
    // Takes one picture if there is one; "nothing yet" and "no more" are
    // not errors.
    auto receiveOne = [&]() -> int {
        int ret = avcodec_receive_frame(context, scratch);
        if (ret == 0) {
            av_frame_unref(out);
            av_frame_move_ref(out, scratch);
            *got = 1;
            return 0;
        }
        return ret == AVERROR(EAGAIN) || ret == AVERROR_EOF ? 0 : ret;
    };

    if (isDrainPacket(packet)) {
        if (!*draining) {
            int ret = avcodec_send_packet(context, nullptr);
            if (ret == AVERROR(EAGAIN)) {
                // Output is waiting to be taken before the decoder accepts
                // the end of input; this call hands out that picture.
                return receiveOne();
            }
            *draining = true;
        }
        return receiveOne();
    }

    if (*draining) {
        // A drained decoder takes new input only after a flush.
        avcodec_flush_buffers(context);
        *draining = false;
    }
    int ret = avcodec_send_packet(context, packet);
    if (ret == AVERROR(EAGAIN)) {
        ret = receiveOne();
        if (ret < 0) {
            return ret;
        }
        ret = avcodec_send_packet(context, packet);
    }
    if (ret < 0) {
        return ret;
    }
    return *got ? 0 : receiveOne();
}

int KavraMedia::getDuration() {
    NativeMutexLock lock(mMutex);
    if (!mFormatContext || mFormatContext->duration == AV_NOPTS_VALUE) {
        return 0;
    }
    return MediaTime::saturate(static_cast<double>(mFormatContext->duration / 1000));
}

int KavraMedia::getStartTime() {
    NativeMutexLock lock(mMutex);
    if (!mFormatContext || mFormatContext->start_time == AV_NOPTS_VALUE) {
        return 0;
    }
    return MediaTime::saturate(static_cast<double>(mFormatContext->start_time / 1000));
}

int KavraMedia::getAudioTrackCount() {
    NativeMutexLock lock(mMutex);
    return mAudioTrackCount;
}

int KavraMedia::getWidth() {
    NativeMutexLock lock(mMutex);
    return mWidth;
}

int KavraMedia::getHeight() {
    NativeMutexLock lock(mMutex);
    return mHeight;
}

int KavraMedia::getFrameRate() {
    NativeMutexLock lock(mMutex);
    return mFrameRate;
}

int KavraMedia::HasBFrame() {
    NativeMutexLock lock(mMutex);
    return mHasBFrames;
}

int KavraMedia::getRotation() {
    NativeMutexLock lock(mMutex);
    return mRotation;
}

int KavraMedia::getSamplerate() {
    NativeMutexLock lock(mMutex);
    return mSampleRate;
}

int KavraMedia::getChannels() {
    NativeMutexLock lock(mMutex);
    return mChannels;
}

int KavraMedia::getVideoMimeID() {
    NativeMutexLock lock(mMutex);
    return mVideoMimeId;
}

int KavraMedia::mimeIdFor(AVCodecID codecId) {
    // The codec numbers of the FFmpeg generation the Java side was written
    // against; FFmpeg has renumbered its enum since, so this is a table.
    switch (codecId) {
    case AV_CODEC_ID_MPEG1VIDEO: return 1;
    case AV_CODEC_ID_MPEG2VIDEO: return 2;
    case AV_CODEC_ID_H263: return 5;
    case AV_CODEC_ID_MJPEG: return 8;
    case AV_CODEC_ID_MPEG4: return 13;
    case AV_CODEC_ID_H264: return 28;
    case AV_CODEC_ID_VP8: return 141;
    case AV_CODEC_ID_VP9: return 169;
    case AV_CODEC_ID_HEVC: return 0x48323635;  // 'H','2','6','5'
    default: return -1;
    }
}
