#include "MediaInfo.h"

#include <android/log.h>

namespace {
const char* const kTag = "MediaInfo";

const char* printable(const char* text) { return text != nullptr ? text : "(null)"; }

void info(const char* fmt, int value) { __android_log_print(ANDROID_LOG_INFO, kTag, fmt, value); }
}  // namespace

MediaInfo::MediaInfo()
    : streamNum(0), videoStreamNum(0), audioStreamNum(0), duration(0), bestVideoStreamIndex(-1),
      bestAudioStreamIndex(-1), format(nullptr), filename(nullptr), streamInfos(nullptr) {
    __android_log_print(ANDROID_LOG_VERBOSE, kTag, "MediaInfo");
}

MediaInfo::~MediaInfo() { __android_log_print(ANDROID_LOG_VERBOSE, kTag, "~MediaInfo"); }

void MediaInfo::initStreamInfo(StreamInfo* s) {
    if (s == nullptr) {
        return;
    }
    s->coderName = nullptr;
    s->startTime = 0;
    s->duration = 0;
    s->streamIndex = -1;
    s->frameNum = 0;
    s->width = 0;
    s->height = 0;
    s->frameRate = 0;
    s->rotation = 0;
    s->has_b_frame = 0;
    s->pixFormat = -1;
    s->samplerate = -1;
    s->channels = -1;
    s->sampleFormat = -1;
}

void MediaInfo::printMediaInfo() const {
    __android_log_print(ANDROID_LOG_INFO, kTag, "======General Info======");
    info("streamNum:%d", streamNum);
    info("videoStreamNum:%d", videoStreamNum);
    info("audioStreamNum:%d", audioStreamNum);
    info("duration:%d", duration);
    __android_log_print(ANDROID_LOG_INFO, kTag, "format:%s", printable(format));
    __android_log_print(ANDROID_LOG_INFO, kTag, "filename:%s", printable(filename));
    info("bestAudioStreamIndex:%d", bestAudioStreamIndex);
    info("bestVideoStreamIndex:%d", bestVideoStreamIndex);
    if (streamInfos != nullptr && streamNum >= 1) {
        for (int i = 0; i < streamNum; ++i) {
            printStreamInfo(&streamInfos[i]);
        }
    }
}

void MediaInfo::printStreamInfo(const StreamInfo* s) {
    if (s == nullptr) {
        return;
    }
    if (s->mediaType == 1) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "======Audio Stream Info======");
        info("streamIndex:%d", s->streamIndex);
        __android_log_print(ANDROID_LOG_INFO, kTag, "coderName:%s", printable(s->coderName));
        info("startTime:%d", s->startTime);
        info("channels:%d", s->channels);
        info("samplerate:%d", s->samplerate);
        info("sampleFormat:%d", s->sampleFormat);
        info("duration:%d", s->duration);
    } else if (s->mediaType == 0) {
        __android_log_print(ANDROID_LOG_INFO, kTag, "======Video Stream Info======");
        info("streamIndex:%d", s->streamIndex);
        info("frameNum:%d", s->frameNum);
        __android_log_print(ANDROID_LOG_INFO, kTag, "coderName:%s", printable(s->coderName));
        info("startTime:%d", s->startTime);
        info("width:%d", s->width);
        info("height:%d", s->height);
        info("frameRate:%d", s->frameRate);
        info("rotation:%d", s->rotation);
        info("has_b_frame:%d", s->has_b_frame);
        info("pixFormat:%d", s->pixFormat);
        info("duration:%d", s->duration);
    }
}
