#include "Source/FFmpegMediaExtractor.h"

#include <android/log.h>

#include "Common/MediaTime.h"
#include "Common/StreamRotation.h"

namespace {
const char* const kTag = "FFmpegMediaExtractor";
}

FFmpegMediaExtractor::FFmpegMediaExtractor() : mFormatContext(nullptr), mInterruptRequest(0), mIoProgress(0), mDamaged(false) {}

FFmpegMediaExtractor::~FFmpegMediaExtractor() { release(); }

int FFmpegMediaExtractor::interruptCallBack(void* opaque) {
    FFmpegMediaExtractor* self = static_cast<FFmpegMediaExtractor*>(opaque);
    self->mIoProgress.fetch_add(1, std::memory_order_relaxed);
    return self->mInterruptRequest.load();
}

int FFmpegMediaExtractor::setSource(const char* path) {
    if (path == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "setSource->path is NULL");
        return -1;
    }
    release();
    mUrl = path;
    mFormatContext = avformat_alloc_context();
    if (mFormatContext == nullptr) {
        return AVERROR(ENOMEM);
    }
    mFormatContext->interrupt_callback.callback = interruptCallBack;
    mFormatContext->interrupt_callback.opaque = this;
    // On failure FFmpeg frees the context and nulls the pointer.
    int ret = avformat_open_input(&mFormatContext, path, nullptr, nullptr);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "file:%s,setSource->avformat_open_input error:%d", path, ret);
        return ret;
    }
    return 0;
}

int FFmpegMediaExtractor::findStreamInfo() {
    if (mFormatContext == nullptr) {
        return -1;
    }
    int ret = avformat_find_stream_info(mFormatContext, nullptr);
    if (ret < 0) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "file:%s,findStreamInfo->no find stream info", mUrl.c_str());
        return ret;
    }
    MediaInfo& info = mMediaInfo;
    if (mFormatContext->duration != AV_NOPTS_VALUE) {
        info.duration = static_cast<int>(mFormatContext->duration / 1000);
    }
    info.streamNum = static_cast<int>(mFormatContext->nb_streams);
    info.format = mFormatContext->iformat != nullptr ? mFormatContext->iformat->long_name : nullptr;
    info.filename = mFormatContext->url;
    info.videoStreamNum = 0;
    info.audioStreamNum = 0;
    for (unsigned i = 0; i < mFormatContext->nb_streams; ++i) {
        AVMediaType type = mFormatContext->streams[i]->codecpar->codec_type;
        if (type == AVMEDIA_TYPE_VIDEO) {
            info.videoStreamNum += 1;
        } else if (type == AVMEDIA_TYPE_AUDIO) {
            info.audioStreamNum += 1;
        }
    }
    mStreamInfos.reset();
    info.streamInfos = nullptr;
    if (info.streamNum != 0) {
        mStreamInfos.reset(new StreamInfo[info.streamNum]);
        info.streamInfos = mStreamInfos.get();
        for (int i = 0; i < info.streamNum; ++i) {
            MediaInfo::initStreamInfo(&info.streamInfos[i]);
            // Streams that are neither video nor audio keep FFmpeg's own
            // media type, so nothing mistakes them for either.
            info.streamInfos[i].mediaType = mFormatContext->streams[i]->codecpar->codec_type;
        }
    }
    for (int i = 0; i < info.streamNum; ++i) {
        AVMediaType type = mFormatContext->streams[i]->codecpar->codec_type;
        if (type == AVMEDIA_TYPE_VIDEO) {
            findVideoStreamInfo(i);
        } else if (type == AVMEDIA_TYPE_AUDIO) {
            findAudioStreamInfo(i);
        }
    }
    int best = av_find_best_stream(mFormatContext, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (best != AVERROR_STREAM_NOT_FOUND) {
        info.bestVideoStreamIndex = best;
    }
    best = av_find_best_stream(mFormatContext, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (best != AVERROR_STREAM_NOT_FOUND) {
        info.bestAudioStreamIndex = best;
    }
    info.printMediaInfo();
    return 0;
}

int FFmpegMediaExtractor::findVideoStreamInfo(int index) {
    const AVStream* stream = mFormatContext->streams[index];
    const AVCodecParameters* par = stream->codecpar;
    StreamInfo& s = mMediaInfo.streamInfos[index];
    s.mediaType = 0;
    s.streamIndex = index;
    s.pixFormat = par->format;
    s.coderName = avcodec_get_name(par->codec_id);
    s.frameNum = static_cast<int>(stream->nb_frames);
    // Computed even without a start time: that saturates to INT_MIN.
    s.startTime = MediaTime::ticksToMs(stream->start_time, stream->time_base);
    if (stream->duration != AV_NOPTS_VALUE) {
        s.duration = MediaTime::ticksToMs(stream->duration, stream->time_base);
    }
    if (stream->avg_frame_rate.den != 0) {
        s.frameRate = stream->avg_frame_rate.num / stream->avg_frame_rate.den;
    }
    s.has_b_frame = par->video_delay;
    s.rotation = StreamRotation::read(stream);
    s.width = par->width;
    s.height = par->height;
    return 0;
}

int FFmpegMediaExtractor::findAudioStreamInfo(int index) {
    const AVStream* stream = mFormatContext->streams[index];
    const AVCodecParameters* par = stream->codecpar;
    StreamInfo& s = mMediaInfo.streamInfos[index];
    s.mediaType = 1;
    s.streamIndex = index;
    s.coderName = avcodec_get_name(par->codec_id);
    s.sampleFormat = par->format;
    s.startTime = MediaTime::ticksToMs(stream->start_time, stream->time_base);
    if (stream->duration != AV_NOPTS_VALUE) {
        s.duration = MediaTime::ticksToMs(stream->duration, stream->time_base);
    }
    s.samplerate = par->sample_rate;
    s.channels = par->ch_layout.nb_channels;
    return 0;
}

int FFmpegMediaExtractor::readFrame(AVPacket* pkt) {
    NativeMutexLock lock(mLock);
    if (mFormatContext == nullptr || pkt == nullptr) {
        return -1;
    }
    int ret = av_read_frame(mFormatContext, pkt);
    if (ret >= 0) {
        mReadGuard.onRead(ret, mFormatContext);
        return 0;
    }
    if (mInterruptRequest != 0) {
        // Interrupted I/O fails at once on every call; that is the caller's
        // doing, not damage.
        return mFormatContext->pb == nullptr || avio_feof(mFormatContext->pb) ? -1 : 0;
    }
    switch (mReadGuard.onRead(ret, mFormatContext)) {
    case ReadProgressGuard::READ_DAMAGED:
        mDamaged = true;
        return -1;
    case ReadProgressGuard::READ_END:
        return -1;
    default:
        // A transient error is handed back as success with an empty packet.
        return 0;
    }
}

int FFmpegMediaExtractor::seekFrame(int timeMs, int streamIndex, int flags) {
    NativeMutexLock lock(mLock);
    if (mFormatContext == nullptr) {
        return -1;
    }
    mReadGuard.reset();
    return av_seek_frame(mFormatContext, streamIndex, static_cast<int64_t>(timeMs) * 1000, flags);
}

AVStream* FFmpegMediaExtractor::getStream(int index) {
    NativeMutexLock lock(mLock);
    if (index < 0 || mFormatContext == nullptr || index >= static_cast<int>(mFormatContext->nb_streams)) {
        return nullptr;
    }
    return mFormatContext->streams[index];
}

int FFmpegMediaExtractor::getStreamIndex(AVMediaType type, int wanted) {
    NativeMutexLock lock(mLock);
    if (mFormatContext == nullptr) {
        return -1;
    }
    int index = av_find_best_stream(mFormatContext, type, wanted, -1, nullptr, 0);
    mMediaInfo.bestAudioStreamIndex = index;
    return index;
}

void FFmpegMediaExtractor::release() {
    if (mFormatContext != nullptr) {
        // Closing the input also frees the context.
        avformat_close_input(&mFormatContext);
    }
    mFormatContext = nullptr;
    mStreamInfos.reset();
    mMediaInfo.streamInfos = nullptr;
    // The file name lived in the closed context.
    mMediaInfo.filename = nullptr;
}
