#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "Common/FFmpegPtr.h"
#include "Source/ReadProgressGuard.h"

// The input of a trim: opens the file, reads its packets (retrying read
// errors while they make progress) and finds key frames and frames around a
// cut point from the packets' own timestamps.
class TrimInput {
public:
    // What reading around a cut point finds, in video ticks.
    struct CutScan {
        int64_t keyBefore;   // key frame at or before the target (reading starts here)
        int64_t firstFrame;  // first frame at or after the target; AV_NOPTS_VALUE if none
        int64_t keyAfter;    // first join point at or after the target; INT64_MAX if none
        int64_t videoEnd;    // end of the last frame read (its time plus duration)
    };

    TrimInput() = default;
    TrimInput(const TrimInput&) = delete;
    TrimInput& operator=(const TrimInput&) = delete;

    // 0, -1 (cannot be opened), -2 (no stream information), -3 (no video
    // stream). The audio stream is optional.
    int open(const std::string& path);
    void close();
    bool isOpen() const { return static_cast<bool>(mContext); }

    AVFormatContext* context() const { return mContext.get(); }
    int videoIndex() const { return mVideoIndex; }
    int audioIndex() const { return mAudioIndex; }
    AVStream* videoStream() const { return mContext->streams[mVideoIndex]; }
    AVStream* audioStream() const { return mAudioIndex >= 0 ? mContext->streams[mAudioIndex] : nullptr; }
    AVPacket* packet() const { return mPacket.get(); }
    bool damaged() const { return mReadGuard.damaged(); }

    // One frame in video ticks, for packets that carry no duration.
    void setFrameTicks(int64_t ticks) { mFrameTicks = ticks; }
    // Which key frames may start a run of copied packets (every key frame
    // when none is set).
    void setJoinPoint(std::function<bool(const AVPacket*)> isJoinPoint) { mIsJoinPoint = std::move(isJoinPoint); }
    bool isJoinPoint(const AVPacket* p) const;

    // The next packet into packet(): 0, or negative at the end of the input.
    int readPacket();
    // Positions the input at its very beginning; returns the first video key
    // frame's time.
    int64_t seekToStart();
    // Seeks so that reading resumes at the key frame at or before `target`
    // (video ticks) and returns that key frame's time.
    int64_t seekToKeyFrameAtOrBefore(int64_t target);
    // Reads from the key frame at or before `target`. The join point after
    // it is looked for only when asked, and no further than the packets
    // decoded up to keyLimit.
    CutScan scanCut(int64_t target, bool findKeyAfter, int64_t keyLimit);

private:
    int64_t firstVideoKeyPts();

    kavra::ScopedAVInputContext mContext;
    kavra::ScopedAVPacket mPacket;
    ReadProgressGuard mReadGuard;
    int mVideoIndex = -1;
    int mAudioIndex = -1;
    int64_t mFrameTicks = 0;
    std::function<bool(const AVPacket*)> mIsJoinPoint;
};
