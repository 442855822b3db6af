#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Common/FFmpegPtr.h"

// The output MP4 file of a trim: one video stream, the input's audio stream
// copied, and new timestamps for both. Video timestamps are evenly spaced
// from 0 at the output frame rate, each computed from a frame count so that
// rounding never adds up; audio packets follow one another without gaps.
//
// For an MPEG-4 Part 2 stream that joins copied and encoded packets whose
// configuration headers differ, the container carries the input's header and
// the first packet of every run of the other kind starts with its own.
class TrimMuxer {
public:
    // Where a video packet comes from.
    enum class Source { Input, Encoder };

    TrimMuxer() = default;
    TrimMuxer(const TrimMuxer&) = delete;
    TrimMuxer& operator=(const TrimMuxer&) = delete;

    // Creates the file (never over the input) with its video stream: 0 or -5.
    int create(const std::string& outputPath, const std::string& inputPath);
    AVFormatContext* context() const { return mContext.get(); }
    AVStream* videoStream() const { return mVideo; }
    int videoIndex() const { return mVideo != nullptr ? mVideo->index : -1; }
    bool needsGlobalHeader() const;

    // The output frame rate; the video keeps the input's time base when one
    // frame is a whole number of its ticks, and otherwise takes one frame as
    // its unit, so that evenly spaced timestamps stay exact.
    void setFrameRate(AVRational frameRate, AVRational inputTimeBase);
    AVRational frameRate() const { return mFrameRate; }

    // MPEG-4 Part 2 streams that join copied and encoded packets: keeps one
    // header in the container when both describe the pictures the same way,
    // the input's otherwise (copied packets stay byte for byte what they
    // were). 0, or -7 when memory runs out.
    int joinMpeg4Headers(const AVCodecParameters* input, const AVCodecContext* encoder);
    bool inbandHeaders() const { return mInbandHeaders; }

    // Adds a stream that takes the input's audio packets: 0 or -8.
    int addAudioStream(const AVStream* input);
    // 0 or -9.
    int writeHeader();
    bool headerWritten() const { return mHeaderWritten; }
    // The trailer's result.
    int finish();

    // Writes the next video frame in order, at the next evenly spaced time.
    int writeVideoPacket(AVPacket* packet, Source source);
    // Writes a video packet of a stream whose decoding order differs from
    // its presentation order: shown as the frame `presentIndex`, decoded as
    // packet `decodeIndex`, both counted from the file's first frame. The
    // first frame is shown at 0, with the audio; decoding times run
    // `delayFrames` behind, so that no packet is decoded after it is shown
    // (the first ones are negative, which the container's edit list takes).
    int writeReorderedVideoPacket(AVPacket* packet, Source source, int64_t presentIndex, int64_t decodeIndex,
                                  int64_t delayFrames);
    // Writes the next audio packet (time base of the input stream; packets
    // without a duration last defaultTicks).
    int writeAudioPacket(AVPacket* packet, AVRational inputTimeBase, int64_t defaultTicks);

    int64_t videoFramesWritten() const { return mVideoFramesWritten; }
    int64_t videoFramesCopied() const { return mVideoFramesCopied; }
    int64_t audioPacketsWritten() const { return mAudioPacketsWritten; }
    // Length of what was written (the longer of video and audio) in
    // microseconds.
    int64_t outputDurationUs() const;

    void release();

private:
    int writeVideo(AVPacket* packet, Source source, int64_t pts, int64_t dts, int64_t duration);
    AVPacket* withHeader(AVPacket* packet, Source source);

    kavra::ScopedAVOutputContext mContext;
    AVStream* mVideo = nullptr;
    AVStream* mAudio = nullptr;
    kavra::ScopedAVPacket mHeaderPacket;
    AVRational mFrameRate{30, 1};
    bool mHeaderWritten = false;
    bool mInbandHeaders = false;
    Source mActiveHeader = Source::Encoder;
    std::vector<uint8_t> mInputHeader;
    std::vector<uint8_t> mEncoderHeader;

    int64_t mVideoFramesWritten = 0;
    int64_t mVideoFramesCopied = 0;
    int64_t mVideoEndIndex = 0;  // frames shown up to the end of the last packet written
    int64_t mAudioPacketsWritten = 0;
    int64_t mNextAudioPts = 0;  // input audio ticks
    int64_t mAudioWrittenUs = 0;
};
