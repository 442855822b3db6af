// kavra probe FILE [--json]: what the media extractor finds in a file.

#include <cstdio>
#include <string>
#include <sys/stat.h>

#include "Command.h"
#include "Common/MediaTime.h"
#include "Source/FFmpegMediaExtractor.h"
#include "ToolSupport.h"

namespace {

const char* kindOf(int mediaType) {
    switch (mediaType) {
    case 0: return "video";
    case 1: return "audio";
    default: return "other";
    }
}

// Times the container leaves unset are shown as absent, not as a number.
bool hasTime(int64_t ticks) { return ticks != AV_NOPTS_VALUE; }

double framesPerSecond(const AVStream* st) {
    AVRational r = st->avg_frame_rate;
    return r.den != 0 && r.num != 0 ? static_cast<double>(r.num) / r.den : 0.0;
}

void writeJson(FFmpegMediaExtractor& extractor) {
    const MediaInfo& info = extractor.mMediaInfo;
    tool::Json j;
    j.beginObject();
    j.field("format", std::string(info.format != nullptr ? info.format : ""));
    j.field("duration_ms", info.duration);
    j.field("best_video", info.bestVideoStreamIndex);
    j.field("best_audio", info.bestAudioStreamIndex);
    j.beginArray("streams");
    for (int i = 0; i < info.streamNum; ++i) {
        const StreamInfo& s = info.streamInfos[i];
        const AVStream* st = extractor.getStream(i);
        bool video = s.mediaType == 0;
        bool audio = s.mediaType == 1;
        j.beginObject();
        j.field("index", i);
        j.field("type", std::string(kindOf(s.mediaType)));
        j.field("codec", std::string(avcodec_get_name(st->codecpar->codec_id)));
        j.key("width"); video ? j.value(static_cast<long long>(s.width)) : j.null();
        j.key("height"); video ? j.value(static_cast<long long>(s.height)) : j.null();
        j.key("fps"); video ? j.value(framesPerSecond(st)) : j.null();
        j.key("rotation"); video ? j.value(static_cast<long long>(s.rotation)) : j.null();
        j.key("frames"); video ? j.value(static_cast<long long>(s.frameNum)) : j.null();
        j.key("sample_rate"); audio ? j.value(static_cast<long long>(s.samplerate)) : j.null();
        j.key("channels"); audio ? j.value(static_cast<long long>(s.channels)) : j.null();
        j.key("start_ms");
        if (hasTime(st->start_time)) {
            j.value(static_cast<long long>(video || audio ? s.startTime
                                                          : MediaTime::ticksToMs(st->start_time, st->time_base)));
        } else {
            j.null();
        }
        j.key("duration_ms");
        if (hasTime(st->duration)) {
            j.value(static_cast<long long>(video || audio ? s.duration
                                                          : MediaTime::ticksToMs(st->duration, st->time_base)));
        } else {
            j.null();
        }
        j.endObject();
    }
    j.endArray();
    j.endObject();
    printf("%s\n", j.str().c_str());
}

std::string timeText(int64_t ticks, int ms) {
    if (!hasTime(ticks)) {
        return "n/a";
    }
    char text[32];
    snprintf(text, sizeof(text), "%d ms", ms);
    return text;
}

void writeText(const char* path, FFmpegMediaExtractor& extractor) {
    const MediaInfo& info = extractor.mMediaInfo;
    printf("%s\n", path);
    printf("  container:  %s\n", info.format != nullptr ? info.format : "?");
    printf("  duration:   %d ms\n", info.duration);
    printf("  streams:    %d (%d video, %d audio)\n", info.streamNum, info.videoStreamNum, info.audioStreamNum);
    for (int i = 0; i < info.streamNum; ++i) {
        const StreamInfo& s = info.streamInfos[i];
        const AVStream* st = extractor.getStream(i);
        std::string start = timeText(st->start_time, s.mediaType <= 1 ? s.startTime : MediaTime::ticksToMs(st->start_time, st->time_base));
        std::string length = timeText(st->duration, s.mediaType <= 1 ? s.duration : MediaTime::ticksToMs(st->duration, st->time_base));
        printf("  #%d %-5s %-10s", i, kindOf(s.mediaType), avcodec_get_name(st->codecpar->codec_id));
        if (s.mediaType == 0) {
            printf(" %dx%d  %.3f fps  rotation %d  %d frames", s.width, s.height, framesPerSecond(st), s.rotation,
                   s.frameNum);
        } else if (s.mediaType == 1) {
            printf(" %d Hz  %d ch", s.samplerate, s.channels);
        }
        printf("  start %s  duration %s\n", start.c_str(), length.c_str());
    }
    printf("  best video: %s\n", info.bestVideoStreamIndex >= 0 ? ("#" + std::to_string(info.bestVideoStreamIndex)).c_str() : "none");
    printf("  best audio: %s\n", info.bestAudioStreamIndex >= 0 ? ("#" + std::to_string(info.bestAudioStreamIndex)).c_str() : "none");
}

int runProbe(const std::vector<std::string>& args) {
    tool::Arguments a;
    std::string error;
    if (!tool::parseArguments(args, {}, {"--json"}, &a, &error)) {
        return tool::fail("probe", error);
    }
    if (a.positional.size() != 1) {
        return tool::fail("probe", "expected exactly one FILE");
    }
    const std::string& path = a.positional[0];
    FFmpegMediaExtractor extractor;
    if (!tool::openMedia(path, &extractor)) {
        return 1;
    }
    if (extractor.mMediaInfo.streamNum == 0) {
        return tool::fail(path, "no media streams");
    }
    if (a.has("--json")) {
        writeJson(extractor);
    } else {
        writeText(path.c_str(), extractor);
    }
    return 0;
}

}  // namespace

KAVRA_COMMAND("probe", "FILE [--json]", "print the container, duration and streams of a media file", runProbe);
