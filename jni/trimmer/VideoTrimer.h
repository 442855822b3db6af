#pragma once

#include <jni.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Common/FFmpegPtr.h"
#include "trimmer/KeepCodecTrim.h"
#include "trimmer/TrimInput.h"
#include "trimmer/TrimMuxer.h"
#include "trimmer/VideoReencoder.h"

class NativeEventPostListener;
class TrimProgressListener;

// Cuts the time range [start, end] of a media file into a new MP4 file with
// one MPEG-4 Part 2 video stream and the input's audio stream copied as it
// is. Mode 0 keeps the range, mode 1 removes it and joins what lies before
// the start to what lies from the end on.
//
// Video packets are copied unchanged only when the input video is itself
// MPEG-4 Part 2 without B-frames, and then only from the first key frame at
// or after a cut; the frames between a cut and that key frame are decoded
// and re-encoded. Any other input has every kept frame re-encoded, so the
// output always decodes cleanly. Output timestamps are new and evenly spaced
// from 0 at the input's frame rate.
//
// Times are microseconds measured from the first video timestamp of the
// input. The output's first frame is the first input frame at or after the
// start; mode 0 runs through the last frame at or before the end, mode 1
// resumes with the first frame at or after the end. Cut points are found
// from the packets' own timestamps (read around each cut before the trim),
// never from an integer frame-rate estimate, so non-integer rates such as
// 30000/1001 cut exactly. Frames are chosen by their presentation time, so
// inputs with B-frames (whose packets come in decoding order) cut exactly
// too. The output frame rate is the input's (av_guess_frame_rate), each
// timestamp computed from the frame count so that rounding never adds up.
//
// Audio packets are kept when they start within the span of the video kept
// (from its first frame to the end of its last), so audio and video end
// within one audio packet of each other; priming packets that the container
// marks for discarding are dropped.
//
// Copied and encoded MPEG-4 packets share one stream. Their configuration
// headers (video object layer: time resolution, resync markers, ...) are
// compared without the encoder-identification user data; when they differ,
// the container carries the input's header (copied packets stay unchanged)
// and the first packet of every run of encoded packets, and of every run of
// copied packets that follows encoded ones, starts with its own header.
//
// With setKeepVideoCodec(true), an H.264 or HEVC input keeps its codec:
// packets are copied byte for byte from the first IDR picture at or after
// each cut, and only the frames a copy cannot carry are re-encoded with
// the same codec (see KeepCodecTrim). Any other input, or one whose stream does not
// allow it, falls back to MPEG-4 with one log line saying why.
//
// Order of use: constructor, setJNIListener (optional), setKeepVideoCodec
// (optional), setTrimParam, prepare, startTrim, release. Everything runs on
// the caller's thread.
class VideoTrimer : private EncodedPacketSink {
public:
    VideoTrimer(const char* inputPath, const char* outputPath);
    virtual ~VideoTrimer();

    VideoTrimer(const VideoTrimer&) = delete;
    VideoTrimer& operator=(const VideoTrimer&) = delete;

    void setJNIListener(JNIEnv* env, jobject thiz, jobject weakThis, jmethodID method);
    void notifyEvent(int msg, int ext1, int ext2);

    // Whether to keep the input's video codec (off by default); read by
    // prepare.
    void setKeepVideoCodec(bool keep) { mKeepCodecRequested = keep; }
    // The prepared trim keeps the input's video codec.
    bool keepsVideoCodec() const { return mKeepCodec; }
    // Name of the output's video codec ("h264", "mpeg4"), empty before
    // prepare.
    std::string videoCodecName() const;

    // The range in microseconds.
    void setTrimParam(int64_t start, int64_t end);
    // Finds the key frames at or before (mFirstSyncTime) and at or after
    // (mSecondSyncTime, INT64_MAX when there is none) a time given in the
    // input video stream's ticks. Moves the input's read position.
    void getSyncTime(int64_t timestamp);

    // Opens the input, creates the output with its encoder and writes its
    // header. 0, or -1 (input cannot be opened), -2 (no stream information),
    // -3 (no video stream, or no decoder for it), -4 (the decoder cannot be
    // opened), -5 (the output cannot be created), -6 (no MPEG-4 encoder),
    // -7 (the encoder cannot be opened), -8 (the audio parameters cannot be
    // copied), -9 (the output header cannot be written).
    int prepare();

    // Runs the trim (mode 0 keep, mode 1 cut out; any other mode writes no
    // packets) and finishes the file. Returns the trailer's result (0 on
    // success), or -1 when the trim was not prepared or has run already.
    int startTrim(int mode);

    // Drains the video decoder into the encoder and the encoder into the
    // output; the encoder accepts no frames afterwards.
    void flushCodec();
    // Drains the encoder of the given output stream when its codec buffers
    // frames.
    void flushCodec(AVFormatContext* fmt, unsigned int streamIndex);

    // Frees everything; harmless to call again.
    void release();

    // Progress of startTrim, on the calling thread; not owned, may be null.
    void setProgressListener(TrimProgressListener* listener);

    // Whether the prepared trim may copy video packets (MPEG-4 Part 2 input
    // without B-frames) instead of re-encoding every frame.
    bool copiesVideo() const { return mCopyVideo || mKeepCodec; }
    // Reading the input stopped at damage rather than at its end, so the
    // output may lack what followed.
    bool isInputDamaged() const { return mInput.damaged(); }
    // What startTrim wrote.
    int64_t videoFramesCopied() const { return mMuxer.videoFramesCopied(); }
    int64_t videoFramesEncoded() const { return mReencoder.framesEncoded(); }
    int64_t audioPacketsWritten() const { return mMuxer.audioPacketsWritten(); }
    // Video frames copied and re-encoded for each part of the output, in
    // order (mode 0 writes one part, mode 1 two; a part without frames is
    // left out).
    struct PartCounts {
        int64_t copied;
        int64_t encoded;
    };
    const std::vector<PartCounts>& partCounts() const { return mParts; }
    // Length of what startTrim wrote (the longer of video and audio), in
    // microseconds.
    int64_t outputDurationUs() const;

    // What prepare found in the input, for callers that check a range
    // before trimming (0 before a successful prepare). The input's length
    // and its start in its own timeline, in microseconds (AV_NOPTS_VALUE
    // when the container gives none), and the first video timestamp, from
    // which the range of setTrimParam counts, in microseconds of the same
    // timeline (rounded to the nearest).
    int64_t inputDurationUs() const;
    int64_t inputStartUs() const;
    int64_t videoOriginUs() const;

private:
    // One read over part of the input. Video frames with timestamps in
    // [videoLow, videoHigh] are kept; in copy mode packets from copyFrom on
    // are copied, earlier ones re-encoded. Audio packets starting in
    // [audioLow, audioHigh) (audio ticks) are kept.
    struct Pass {
        int64_t videoLow;
        int64_t videoHigh;
        int64_t copyFrom;
        int64_t audioLow;
        int64_t audioHigh;
        int64_t progressFromUs;
        int64_t progressToUs;
    };

    void startTrimInner();
    void startTrimOuter();
    void runPass(const Pass& pass);
    void runCopyOrEncodePass(const Pass& pass);
    int finishPrepare();

    int writeEncodedPacket(AVPacket* packet) override;
    void writeAudioPacket(AVPacket* packet);

    void startProgress(int64_t totalUs);
    void reportProgress(const Pass& pass, const AVPacket* packet);
    void finishPassProgress(const Pass& pass);

    std::unique_ptr<NativeEventPostListener> mListener;
    TrimInput mInput;
    TrimMuxer mMuxer;
    VideoReencoder mReencoder;
    KeepCodecTrim mKeepCodecTrim;
    const Pass* mRunningPass;
    std::vector<PartCounts> mParts;
    int32_t mSrcAudioIndex;
    int32_t mSrcVideoIndex;
    int64_t mStartTime;
    int64_t mEndTime;
    int64_t mVideoStartPTS;
    int64_t mVideoStopPTS;
    int64_t mAudioStartPTS;
    int64_t mAudioStopPTS;
    int64_t mFirstSyncTime;
    int64_t mSecondSyncTime;
    int32_t mVideoTicks;
    int32_t mAudioTicks;
    std::string mInputPath;
    std::string mOutputPath;

    TrimProgressListener* mProgressListener;
    bool mTrimDone;
    bool mCopyVideo;
    bool mKeepCodecRequested;
    bool mKeepCodec;

    int64_t mOrigin;           // the input's first video timestamp
    AVRational mFrameRate;     // output frame rate
    int64_t mInputFrameTicks;  // one frame in input video ticks, for packets without a duration

    int64_t mProgressTotalUs;
    int64_t mProgressDoneUs;  // spans of finished passes
    int64_t mProgressPassUs;  // furthest point of the running pass
    int mLastPercent;
};
