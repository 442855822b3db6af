#pragma once

#include <jni.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "Common/FrameBuffer.h"
#include "Common/FrameBufferQueue.h"
#include "Common/NativeCondition.h"
#include "Common/NativeMutex.h"
#include "NativeEventPostListener.h"
#include "Platform/NativeWindow.h"
#include "Platform/PcmSink.h"
#include "Player/FrameJump.h"
#include "Player/KavraMediaDecoder.h"
#include "Render/RenderManager.h"
#include "Render/Timer.h"

// The player: owns the demux pipeline (KavraMediaDecoder) and the render
// manager with the playback clock, keeps the player status, checks every
// public operation against it and reports changes through its listener.
// Two render threads, one per selected stream, take decoded frames from the
// decoders' output queues and hand them to the render manager. Seeks are
// frame-accurate: the render threads meet, one of them repositions the
// demultiplexer when needed, decodes forward to the first frame that reaches
// the target, shows it, sets the clock to it and drops audio up to it.
// Log tag "KavraMediaPlayer".
//
// Order of use: setListener, setDataSource, setVideoPlay/setAudioPlay,
// prepare, start ... stop, release, destroy. prepare may follow stop again.
// Every call returns within a bounded time; stop cuts every wait short.
class KavraMediaPlayer final : private FrameJump::Host {
public:
    // Status values, one bit each so that sets of them form masks.
    enum Status : int {
        MEDIA_PLAYER_STATE_ERROR = 1,
        MEDIA_PLAYER_IDLE = 2,
        MEDIA_PLAYER_INITIALIZED = 4,
        MEDIA_PLAYER_PREPARING = 8,
        MEDIA_PLAYER_PREPARED = 16,
        MEDIA_PLAYER_STARTED = 32,
        MEDIA_PLAYER_PAUSED = 64,
        MEDIA_PLAYER_STOPPED = 128,
        MEDIA_PLAYER_PLAYBACK_COMPLETE = 256,
    };
    // Events sent to the listener: notify(what, arg1, arg2).
    enum Event : int {
        MEDIA_PREPARED = 1,
        MEDIA_PLAYBACK_COMPLETE = 2,
        // arg1, arg2: the display size (0, 0 without video).
        MEDIA_SET_VIDEO_SIZE = 5,
        MEDIA_ERROR = 100,
    };

    KavraMediaPlayer();
    // A playback clock read through another time source (microseconds).
    explicit KavraMediaPlayer(Timer::TimeSource timeSource);
    // Stops and releases whatever is still running or held.
    ~KavraMediaPlayer();
    KavraMediaPlayer(const KavraMediaPlayer&) = delete;
    KavraMediaPlayer& operator=(const KavraMediaPlayer&) = delete;

    // Events go to the Java object's static postEventFromNative.
    void setListener(JNIEnv* env, jobject thiz, jobject weakThis, jmethodID post);
    // Events go to a native listener (a subclass overriding notify). An
    // earlier listener is freed. Events are sent with the status lock held:
    // a listener must not call back into the player.
    void setListener(std::unique_ptr<NativeEventPostListener> listener);

    // Opens and probes the file (legal when idle). 0, or -1 with the player
    // in the error state (event 100).
    int setDataSource(const char* path);
    // Creates the decoders, starts the render threads and the pipeline
    // (legal when initialized or stopped). 0, or -1.
    int prepare();
    // Video goes to `window` (only when the file has video).
    void setVideoPlay(const std::shared_ptr<NativeWindow>& window);
    // Audio goes to the Java callback's onAudioBuffer(byte[]) (only when the
    // file has audio); the renderer's result, or -1 without audio.
    int setAudioPlay(JNIEnv* env, jobject callback);
    // Audio goes to a native PCM sink (only when the file has audio).
    int setAudioPlay(std::unique_ptr<PcmSink> sink);
    // Stops presenting audio and/or video; the streams keep being decoded.
    void unSelectTrack(bool audio, bool video);

    // From prepared, paused or complete (complete replays from time 0).
    void start();
    void resume();
    // From started; the picture shown stays.
    void pause();
    // `ms` is relative to the media start, in [0, duration]. Every seek is
    // frame-accurate whatever `accurate` says. Returns at once; the render
    // threads carry the seek out.
    void seekTo(int ms, bool accurate = true);
    // Returns without waiting for the audio render thread.
    void stop();
    // Logs only.
    void reset();
    // Stops what still runs, joins every thread and frees the pipeline.
    // Harmless when repeated.
    void release();

    // n further passes after the first; negative loops for ever.
    void setLooping(int n);
    void setPlaySpeed(float speed);
    void setPlaySpeedMode(int mode, int unused);
    // Switches what is heard to audio stream `track` (0-based among the
    // audio streams) at the current position, without restarting video.
    // The selection's result, -1 on failure.
    int setAudioTrack(int track);

    // ms relative to the media start: the target while a seek is pending,
    // else the clock.
    int getCurrentPosition();
    int getDuration() const { return mDuration.load(); }
    int getRotation() const { return mRotation.load(); }
    int getFrameRate() const { return mFrameRate.load(); }
    int getSampleRate() const { return mSampleRate.load(); }
    int getChannels() const { return mChannels.load(); }
    int getAudioTrackCount() const { return mAudioTrackCount.load(); }
    // Display size: swapped for a rotation of 90 or 270.
    int getVideoWidth() const;
    int getVideoHeight() const;
    // The pipeline's current audio stream index (container index), -1 when
    // there is none.
    int getAudioTrackIndex();
    bool isPlaying() const { return mStatus.load() == MEDIA_PLAYER_STARTED; }

    // Native-use extras.
    int getStatus() const { return mStatus.load(); }
    // Media start time in ms: frame times are this plus the position.
    int getStartTime() const { return mStartTime.load(); }
    int getVideoStreamIndex() const { return mVideoStreamIndex.load(); }
    int getAudioStreamIndex() const { return mAudioStreamIndex.load(); }
    bool isSeekPending() const { return mSeekPosition.load() != -1; }
    // The number of seekTo requests so far, and which of them the last
    // picture a seek showed served, with that picture's time in ms:
    // request number << 32 | (uint32) time (0 before any). Lets a caller
    // tell a seek's picture from one that was already on its way.
    uint32_t getSeekRequests() const { return mSeekRequests.load(); }
    uint64_t getSeekResult() const { return mFrameJump.shownJumps(); }
    RenderManager& getRenderManager() { return mRenderManager; }

    // Guarded status change: never leaves error or stopped; sends the event
    // of 256, 16 and 1; wakes every waiter.
    void updateStatus(int status);
    // Sends the event of a status without changing anything.
    void handleStatus(int status);
    // Waits until the status lies in `mask` (true) or the player stopped
    // outside it (false).
    bool waitFor(int mask);
    // The same with a bound; false also when the time ran out.
    bool waitFor(int mask, int timeoutMs);

private:
    // Opens mPath into a new pipeline; 0 or -1.
    int openDecoder();
    void notifyListener(int what, int arg1, int arg2);
    // The guarded change and the events, with mStatusLock held.
    void updateStatusLocked(int status);
    void handleStatusLocked(int status);
    int prepareVideo();
    int prepareAudio();
    // Selects the stream in the decoder, takes its output queue and starts
    // its render thread; -1 when the decoder cannot take the stream.
    int prepareStream(int stream);
    // Records a seek to an absolute media time; the render threads carry it
    // out. forceDemuxSeek: reposition even when decoding forward would do.
    void requestSeek(int absoluteMs, bool forceDemuxSeek);
    void joinRenderThreads();
    void freeDecoder();

    // The render loop of one stream (RenderManager::kStreamVideo or
    // kStreamAudio).
    void onRenderFrame(int stream);
    // Takes one frame of the stream and presents or drops it.
    void renderNextFrame(int stream);
    // The gate of the render loops: true to go on rendering, false to end.
    bool isRenderFrame();
    // Marks the end of a stream and runs the completion check.
    void setFinished(int stream);
    // Decides completion (or the next loop pass) once both streams ended.
    void updateRenderFinishStatus();

    void attachFrameJump();
    // Seek work, on the render threads: the rendezvous, then the frame jump.
    void handleSeekWork();
    // FrameJump::Host.
    bool isStopped() const override { return mStatus.load() == MEDIA_PLAYER_STOPPED; }
    void onStreamEnd(int stream) override;
    void onRepositioned() override;

    // The file, kept for the extractor and for a new prepare after stop.
    std::string mPath;
    std::atomic<int> mVideoStreamIndex{-1};
    std::atomic<int> mAudioStreamIndex{-1};
    std::unique_ptr<KavraMediaDecoder> mDecoder;
    std::atomic<FrameBufferQueue*> mVideoQueue{nullptr};
    std::atomic<FrameBufferQueue*> mAudioQueue{nullptr};
    std::thread mVideoRenderThread;
    std::thread mAudioRenderThread;
    // Absolute media ms; -1 when no seek is pending. Written under mSeekLock.
    std::atomic<int> mSeekPosition{-1};
    std::atomic<int> mLoopCount{0};
    std::atomic<bool> mIsSeekPositonChanged{false};
    // The next seek repositions the demultiplexer even when the target lies
    // just ahead (a new audio stream must be read from the target on).
    std::atomic<bool> mForceDemuxSeek{false};
    // Counts seekTo requests; changed under mSeekLock.
    std::atomic<uint32_t> mSeekRequests{0};
    RenderManager mRenderManager;
    // Serialises seek requests against the frame jump.
    NativeMutex mSeekLock;
    std::atomic<int> mStatus{MEDIA_PLAYER_IDLE};
    std::atomic<bool> mVideoRenderFinished{true};
    std::atomic<bool> mAudioRenderFinished{true};
    // Makes the completion decision once.
    NativeMutex mFinishLock;
    std::unique_ptr<NativeEventPostListener> mListener;
    // The render threads' seek rendezvous; one thread at a time does seek
    // work. Taken before mSeekLock.
    NativeMutex mSeekWorkLock;
    NativeCondition mSeekWorkCond;
    std::atomic<bool> mVideoInSeek{false};
    std::atomic<bool> mAudioInSeek{false};
    // Held by the audio render thread while it holds an audio slot, and by
    // setAudioTrack while the audio decoder is replaced.
    NativeMutex mAudioSwapLock;
    // Guard mStatus; the condition is broadcast after every guarded change.
    NativeMutex mStatusLock;
    NativeCondition mStatusCond;
    std::atomic<bool> mAccurateSeek{true};
    std::atomic<int> mWidth{0};
    std::atomic<int> mHeight{0};
    std::atomic<int> mStartTime{0};
    std::atomic<int> mFrameRate{0};
    std::atomic<int> mRotation{0};
    std::atomic<int> mChannels{-1};
    std::atomic<int> mSampleRate{0};
    std::atomic<int> mDuration{0};
    std::atomic<int> mAudioTrackCount{0};
    // Serves mSeekPosition's requests; used under mSeekWorkLock.
    FrameJump mFrameJump;
};
