#pragma once

#include <atomic>
#include <memory>
#include <string>

#include "Common/NativeMutex.h"
#include "Source/MediaInfo.h"
#include "Source/ReadProgressGuard.h"

extern "C" {
#include <libavformat/avformat.h>
}

// Wraps one opened container: opens a path with an interrupt callback,
// probes its streams into a MediaInfo, reads packets and seeks. After
// opening, every access to the format context is serialised by mLock, since
// the demux thread reads while other threads ask for streams.
class FFmpegMediaExtractor {
public:
    FFmpegMediaExtractor();
    virtual ~FFmpegMediaExtractor();
    FFmpegMediaExtractor(const FFmpegMediaExtractor&) = delete;
    FFmpegMediaExtractor& operator=(const FFmpegMediaExtractor&) = delete;

    // 0, -1 for a null path, or FFmpeg's negative error.
    int setSource(const char* path);
    // 0 or FFmpeg's negative error; fills mMediaInfo and logs it.
    int findStreamInfo();
    int findVideoStreamInfo(int index);
    int findAudioStreamInfo(int index);
    // 0 for a packet (or a transient read error), -1 at end of input. A run
    // of read errors that makes no progress is the end of input too, and
    // marks the input as damaged.
    int readFrame(AVPacket* pkt);
    // The input ended through damage rather than at its end (see readFrame).
    bool isDamaged() const { return mDamaged.load(); }
    // av_seek_frame's result; timeMs is widened before scaling to us. A
    // seek starts a new run of read errors.
    int seekFrame(int timeMs, int streamIndex, int flags);
    // Null for a bad index or no open input.
    AVStream* getStream(int index);
    // av_find_best_stream's answer, also stored as the best audio index.
    int getStreamIndex(AVMediaType type, int wanted);
    // Makes every blocking FFmpeg I/O of this input give up, for good.
    void requestInterrupt() { mInterruptRequest = 1; }
    // Grows every time FFmpeg's I/O layer checks for an interrupt, which it
    // does around every read: a value that stops changing means the input
    // is stuck, one that moves means I/O is going on, however slowly.
    uint64_t ioProgress() const { return mIoProgress.load(std::memory_order_relaxed); }
    // Closes the input and frees the stream records; safe to call twice.
    void release();

    static int interruptCallBack(void* opaque);

    MediaInfo mMediaInfo;

private:
    // Guarded by mLock once the input is open.
    AVFormatContext* mFormatContext;
    std::string mUrl;
    NativeMutex mLock;
    std::unique_ptr<StreamInfo[]> mStreamInfos;
    std::atomic<int> mInterruptRequest;
    std::atomic<uint64_t> mIoProgress;
    // Guarded by mLock.
    ReadProgressGuard mReadGuard;
    std::atomic<bool> mDamaged;
};
