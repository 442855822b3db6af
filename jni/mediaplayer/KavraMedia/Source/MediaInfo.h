#pragma once

#include <cstdint>

// Probe results of one stream. Times are whole milliseconds. Fields that do
// not apply to the stream's kind keep their initial values.
struct StreamInfo {
    // 0 video, 1 audio; other kinds carry FFmpeg's own media type number.
    int mediaType;
    const char* coderName;
    int startTime;
    int duration;
    int streamIndex;
    int frameNum;
    int width;
    int height;
    int frameRate;
    // Clockwise degrees to turn the picture for display.
    int rotation;
    int has_b_frame;
    int pixFormat;
    int samplerate;
    int channels;
    int sampleFormat;
};

// Probe results of one file, filled by the media extractor. A copy shares
// `format`, `filename` and `streamInfos` with the extractor and is valid only
// while the extractor is open.
class MediaInfo {
public:
    MediaInfo();
    ~MediaInfo();
    MediaInfo(const MediaInfo&) = default;
    MediaInfo& operator=(const MediaInfo&) = default;

    // Resets every field but mediaType to its initial value.
    static void initStreamInfo(StreamInfo* info);
    // Writes the general block, then each stream's block, to the log.
    void printMediaInfo() const;
    static void printStreamInfo(const StreamInfo* info);

    int streamNum;
    int videoStreamNum;
    int audioStreamNum;
    int duration;
    int bestVideoStreamIndex;
    int bestAudioStreamIndex;
    const char* format;
    const char* filename;
    // streamNum entries, owned by the extractor.
    StreamInfo* streamInfos;
};
