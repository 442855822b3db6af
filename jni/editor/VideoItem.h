#pragma once

#include <jni.h>
#include <pthread.h>

#include <atomic>
#include <memory>
#include <string>

#include "Common/FFmpegPtr.h"
#include "Common/NativeCondition.h"
#include "Common/NativeMutex.h"
#include "Common/PacketQueue.h"
#include "editor/KavraMedia.h"
#include "editor/ThumbnailSink.h"

// The editor's handle on one video file: strips of thumbnails at evenly
// spaced times, the key frame at a time as RGBA pixels, and a snapshot at a
// time written as a JPEG file.
//
// A strip or a snapshot runs a packet reader on a thread of its own
// (getVideoItemPacket) that seeks to each target time and feeds compressed
// packets through a small queue to the caller's thread, which decodes them
// (getPacketFrame). The reader is always joined before the call returns,
// before another starts and before the item is freed.
//
// One item serves one strip or one snapshot: the cancel flag and the
// reader-running flag are never reset, so callers set the source again
// (a fresh item) for the next one. Key-frame grabs may be repeated.
//
// Times are milliseconds in the file's own timeline. Pixels are 32-bit
// elements with the bytes R, G, B, A in memory order (0xAABBGGRR as a Java
// int reads them), rows top to bottom without padding.
class VideoItem : public KavraMedia {
public:
    VideoItem();
    ~VideoItem() override;

    // Opens the file and its video decoder; 0 or the first negative code.
    int setSource(const char* path, bool singleThread);
    // Targets: start + i x interval for i in [0, count), interval =
    // (end - start) / (count - 1). Width and height of the pictures handed
    // out are in display orientation; below 1 they fall back to the coded
    // size. keyFrameOnly: each target shows the key frame at or before it;
    // otherwise the first frame at or after it.
    void setItemParameters(int start, int end, int count, int width, int height, bool keyFrameOnly);

    // The decoded picture for target `index`, or null (cancelled, nothing
    // decodable). The frame belongs to the item and stays valid until the
    // next decode.
    AVFrame* getPacketFrame(int index);
    // Stops a strip between thumbnails; safe from any thread. Waits until
    // a running strip's reader has ended.
    void cancel();
    // True once: after any running strip has finished and the item is
    // cancelled, so the caller may destroy it. False on every later call.
    bool release();

    // Runs the strip set by setItemParameters, writing each thumbnail over
    // `dst` (dstBytes bytes, which must hold outWidth x outHeight pixels)
    // and calling the Java callback's onThumbnail(int) after each one.
    // 0 when the strip ran (also when cut short or cancelled), -1 when the
    // item is busy or memory ran out.
    int get_thumbnaillist(JNIEnv* env, int* dst, int dstBytes, jobject callback);
    // The same with the thumbnails handed to any sink.
    int getThumbnailList(int* dst, int dstBytes, ThumbnailSink& sink);
    // The key frame at or before timeMs (0 when beyond the duration or
    // negative), scaled to width x height in display orientation. Safe from
    // any thread at any time, also from inside a thumbnail callback: grabs
    // read and decode through a reader of their own (opened on the first
    // grab), so they never move a running strip's reader nor share its
    // decoder. Concurrent grabs take turns.
    int getKeyFrameAt(int* dst, int dstBytes, int width, int height, int timeMs);
    // Writes the first frame at or after timeMs (the last frame when there
    // is none) in coded size and orientation to `path` as a JPEG image.
    // 0, or -1 when no frame could be had or the item is busy with another
    // job; a file that cannot be written is not reported.
    int snapShot(const char* path, long timeMs);

    // Scales a decoded frame to width x height (coded orientation) as RGBA
    // and turns it by `rotation` (90, 180 or 270; anything else copies) into
    // dst. 0, or -1 when memory ran out.
    int YUV420PToRGBA(AVFrame* frame, int* dst, int width, int height, int rotation);
    // Quarter turn clockwise: dst is height x width.
    static void vemiRotate90(const int* src, int* dst, int width, int height);
    // Half turn: dst is width x height.
    static void vemiRotate180(const int* src, int* dst, int width, int height);
    // Quarter turn counter-clockwise: dst is height x width.
    static void vemiRotate270(const int* src, int* dst, int width, int height);

private:
    // Reader thread body.
    void getVideoItemPacket();
    static void* readerEntry(void* item);
    // Starts the reader after joining any earlier one; false when no thread
    // could be started (the fetcher then finds an ended, empty queue).
    bool startReader();
    // Asks the reader to end and joins it.
    void stopReader();
    void setReaderState(int state);
    void waitWhileReaderState(int state);
    // Target time of thumbnail `index`, wrapping like 32-bit arithmetic.
    int targetTime(int index) const;
    // Presentation time of a decoded frame in ms (0 when it has none).
    double frameTimeExactMs(AVFrame* frame);
    // -1, 0 or 1 as the frame is presented before, at or after targetMs.
    int compareFrameTime(AVFrame* frame, int targetMs);
    int frameTimeMs(AVFrame* frame);
    // Writes a YUVJ420P picture to `path` as one JPEG image.
    void writeJpeg(const char* path, AVFrame* picture);
    // Reads into `packet` the key packet of the key frame at or before
    // timeMs, after the grab's seek; 0, or the read's error, or -1 when no
    // key packet comes within the budget.
    int findKeyPacket(KavraMedia* media, int timeMs, AVPacket* packet);
    // The key-frame grabs' own reader; opened on first use. Null when the
    // file cannot be opened again. Called under mKeyFrameLock.
    KavraMedia* keyFrameMedia();
    // Copies (and turns) an RGBA picture of width x height into dst.
    static void placeRgba(const int* src, int* dst, int width, int height, int rotation, int dstBytes);

    PacketQueue mPacketQueue;
    // 0: the reader must seek to its current target first; 2: it has.
    std::atomic<int> seekState;
    std::atomic<bool> cancelled;
    std::atomic<bool> keyFrameOnly;
    // Cleared by the reader when it ends; while set the fetcher blocks on
    // the queue.
    std::atomic<bool> readerRunning;
    std::atomic<bool> released;
    // 1: a strip has started its reader; 2: the reader has ended.
    // Guarded by mReaderStateLock, changes announced on mReaderStateChanged.
    int readerState;
    // Strip parameters; written under operationMutex before a reader starts.
    std::atomic<int> startTime;
    std::atomic<int> endTime;
    std::atomic<int> interval;
    std::atomic<int> outWidth;
    std::atomic<int> outHeight;
    std::atomic<int> count;
    // Extra drain attempts allowed to a single-target job.
    int retryBudget;
    // Fetcher state (caller's thread only).
    kavra::ScopedAVPacket mWorkingPacket;
    int pendingFrames;
    std::atomic<int> scaleFlags;

    pthread_t mReaderThread;
    bool mReaderStarted;
    // Ends the reader when a strip or snapshot is over, without touching
    // the cancel flag the caller sees.
    std::atomic<bool> mStopReader;

    // Key-frame grabs: the path and threading the item was opened with, and
    // the grabs' own reader. Guarded by mKeyFrameLock.
    std::string mPath;
    bool mSingleThread;
    std::unique_ptr<KavraMedia> mKeyFrameMedia;
    NativeMutex mKeyFrameLock;

    NativeMutex operationMutex;
    NativeMutex releaseMutex;
    NativeMutex mReaderStateLock;
    NativeCondition mReaderStateChanged;
};
