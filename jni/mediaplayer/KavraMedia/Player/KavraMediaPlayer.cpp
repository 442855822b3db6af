#include "Player/KavraMediaPlayer.h"

#include <android/log.h>

#include <chrono>
#include <utility>

#include "Source/MediaInfo.h"

namespace {
const char* const kTag = "KavraMediaPlayer";
#define ALOGV(...) __android_log_print(ANDROID_LOG_VERBOSE, kTag, __VA_ARGS__)
#define ALOGW(...) __android_log_print(ANDROID_LOG_WARN, kTag, __VA_ARGS__)
#define ALOGE(...) __android_log_print(ANDROID_LOG_ERROR, kTag, __VA_ARGS__)

// How long a render thread waits for a decoded frame before it looks at the
// gate and pending seeks again.
constexpr int kFrameWaitMs = 30;
// The longest the first render thread at a seek waits for the second.
constexpr int kRendezvousWaitMs = 3000;
// Stream selectors of the render manager.
constexpr int kVideo = RenderManager::kStreamVideo;
constexpr int kAudio = RenderManager::kStreamAudio;
// Statuses in which the render threads wait at their gate.
constexpr int kGateWaiting = KavraMediaPlayer::MEDIA_PLAYER_PREPARING | KavraMediaPlayer::MEDIA_PLAYER_PREPARED |
                             KavraMediaPlayer::MEDIA_PLAYER_PAUSED | KavraMediaPlayer::MEDIA_PLAYER_PLAYBACK_COMPLETE;
}  // namespace

KavraMediaPlayer::KavraMediaPlayer() : KavraMediaPlayer(Timer::TimeSource()) {}

KavraMediaPlayer::KavraMediaPlayer(Timer::TimeSource timeSource)
    : mRenderManager(std::move(timeSource)),
      mFrameJump(*this, mRenderManager, {mSeekLock, mSeekPosition, mIsSeekPositonChanged, mForceDemuxSeek, mSeekRequests}) {
    ALOGV("KavraMediaPlayer");
}

KavraMediaPlayer::~KavraMediaPlayer() {
    release();
    {
        NativeMutexLock lock(mStatusLock);
        mListener.reset();
    }
    ALOGV("~KavraMediaPlayer");
}

void KavraMediaPlayer::setListener(JNIEnv* env, jobject thiz, jobject weakThis, jmethodID post) {
    setListener(std::unique_ptr<NativeEventPostListener>(new NativeEventPostListener(env, thiz, weakThis, post)));
}

void KavraMediaPlayer::setListener(std::unique_ptr<NativeEventPostListener> listener) {
    // Events are sent under mStatusLock, so the swap cannot meet one.
    NativeMutexLock lock(mStatusLock);
    mListener = std::move(listener);
}

void KavraMediaPlayer::notifyListener(int what, int arg1, int arg2) {
    if (mListener) {
        mListener->notify(what, arg1, arg2);
    }
}

void KavraMediaPlayer::updateStatusLocked(int status) {
    const int current = mStatus.load();
    if (status != -1 && current != MEDIA_PLAYER_STATE_ERROR && current != MEDIA_PLAYER_STOPPED) {
        mStatus = status;
        handleStatusLocked(status);
    }
    mStatusCond.notifyAll();
}

void KavraMediaPlayer::updateStatus(int status) {
    NativeMutexLock lock(mStatusLock);
    updateStatusLocked(status);
}

void KavraMediaPlayer::handleStatusLocked(int status) {
    switch (status) {
        case MEDIA_PLAYER_PLAYBACK_COMPLETE:
            notifyListener(MEDIA_PLAYBACK_COMPLETE, 0, 0);
            break;
        case MEDIA_PLAYER_PREPARED:
            notifyListener(MEDIA_PREPARED, 0, 0);
            break;
        case MEDIA_PLAYER_STATE_ERROR:
            notifyListener(MEDIA_ERROR, 0, 0);
            break;
        default:
            break;
    }
}

void KavraMediaPlayer::handleStatus(int status) {
    NativeMutexLock lock(mStatusLock);
    handleStatusLocked(status);
}

bool KavraMediaPlayer::waitFor(int mask) { return waitFor(mask, -1); }

bool KavraMediaPlayer::waitFor(int mask, int timeoutMs) {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    NativeMutexLock lock(mStatusLock);
    for (;;) {
        const int status = mStatus.load();
        if ((status & mask) == status) {
            return true;
        }
        if (status == MEDIA_PLAYER_STOPPED) {
            return false;
        }
        if (timeoutMs < 0) {
            mStatusCond.wait(mStatusLock);
            continue;
        }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            return false;
        }
        mStatusCond.wait(mStatusLock, static_cast<long>(left));
    }
}

int KavraMediaPlayer::setDataSource(const char* path) {
    ALOGV("setDataSource");
    const int status = mStatus.load();
    if (status != MEDIA_PLAYER_IDLE) {
        ALOGE("call setDataSource in IllegalState:%d.", status);
        updateStatus(MEDIA_PLAYER_STATE_ERROR);
        return -1;
    }
    mPath = path != nullptr ? path : "";
    if (path == nullptr || openDecoder() < 0) {
        ALOGE("setDataSource error.");
        updateStatus(MEDIA_PLAYER_STATE_ERROR);
        return -1;
    }
    MediaInfo info = mDecoder->getMediaInfo();
    const int video = info.bestVideoStreamIndex;
    const int audio = info.bestAudioStreamIndex;
    mVideoStreamIndex = video;
    mAudioStreamIndex = audio;
    if (video >= 0 && info.streamInfos != nullptr) {
        const StreamInfo& s = info.streamInfos[video];
        mWidth = s.width;
        mHeight = s.height;
        mRotation = s.rotation;
        mFrameRate = s.frameRate;
    }
    if (audio >= 0 && info.streamInfos != nullptr) {
        mChannels = info.streamInfos[audio].channels;
        mSampleRate = info.streamInfos[audio].samplerate;
    }
    mDuration = info.duration;
    mAudioTrackCount = info.audioStreamNum;
    mStartTime = mDecoder->getStreamStartTime();
    {
        NativeMutexLock lock(mStatusLock);
        mStatus = MEDIA_PLAYER_INITIALIZED;
        mStatusCond.notifyAll();
        notifyListener(MEDIA_SET_VIDEO_SIZE, getVideoWidth(), getVideoHeight());
    }
    if (mStartTime != 0) {
        ALOGW("stream startTime:%d.", mStartTime.load());
        mRenderManager.setStartTime(mStartTime);
    }
    return 0;
}

int KavraMediaPlayer::openDecoder() {
    std::unique_ptr<KavraMediaDecoder> decoder(new KavraMediaDecoder());
    if (decoder->setDataSource(mPath.c_str()) < 0 || decoder->prepare() < 0) {
        decoder->release();
        return -1;
    }
    mDecoder = std::move(decoder);
    return 0;
}

int KavraMediaPlayer::prepare() {
    ALOGV("prepare: V%dA%d", mVideoStreamIndex.load(), mAudioStreamIndex.load());
    const int status = mStatus.load();
    if (status != MEDIA_PLAYER_INITIALIZED && status != MEDIA_PLAYER_STOPPED) {
        ALOGE("call prepare in IllegalState:%d.", status);
        return -1;
    }
    if (status == MEDIA_PLAYER_STOPPED) {
        // The render threads of the stopped run are joined while the status
        // still says stopped: one that had not reached its gate yet (stop
        // does not wait for the audio thread) must see "stopped" there and
        // end, not "preparing", which would park it for good.
        joinRenderThreads();
    }
    {
        NativeMutexLock lock(mStatusLock);
        mStatus = MEDIA_PLAYER_PREPARING;
        mStatusCond.notifyAll();
    }
    if (status == MEDIA_PLAYER_STOPPED) {
        // A stopped pipeline cannot run again: it is freed, and the file is
        // opened afresh.
        freeDecoder();
        mSeekPosition = -1;
        mIsSeekPositonChanged = false;
        mForceDemuxSeek = false;
        mRenderManager.setCurrentTime(mStartTime);
        mRenderManager.openStreamRender(RenderManager::kStreamBoth);
        if (openDecoder() < 0) {
            ALOGE("setDataSource error.");
            updateStatus(MEDIA_PLAYER_STATE_ERROR);
            return -1;
        }
    }
    int result = 0;
    const bool video = mVideoStreamIndex >= 0;
    const bool audio = mAudioStreamIndex >= 0;
    mVideoRenderFinished = !video;
    mVideoInSeek = !video;
    mAudioRenderFinished = !audio;
    mAudioInSeek = !audio;
    if (video && prepareVideo() < 0) {
        result = -1;
    }
    if (result == 0 && audio && prepareAudio() < 0) {
        result = -1;
    }
    if (result < 0) {
        updateStatus(MEDIA_PLAYER_STATE_ERROR);
        return -1;
    }
    mDecoder->start();
    updateStatus(MEDIA_PLAYER_PREPARED);
    ALOGE("MEDIA_PLAYER_PREPARED");
    return 0;
}

int KavraMediaPlayer::prepareVideo() { return prepareStream(kVideo); }

int KavraMediaPlayer::prepareAudio() { return prepareStream(kAudio); }

int KavraMediaPlayer::prepareStream(int stream) {
    const bool video = stream == kVideo;
    ALOGV(video ? "prepareVideo" : "prepareAudio");
    const int result =
        video ? mDecoder->selectVideoStream(mVideoStreamIndex) : mDecoder->selectAudioStream(mAudioStreamIndex);
    if (result < 0) {
        ALOGE(video ? "prepareVideo error:%d." : "prepareAudio error:%d.", result);
        return -1;
    }
    (video ? mVideoQueue : mAudioQueue) = video ? mDecoder->getVideoOutputQueue() : mDecoder->getAudioOutputQueue();
    attachFrameJump();
    (video ? mVideoRenderThread : mAudioRenderThread) = std::thread(&KavraMediaPlayer::onRenderFrame, this, stream);
    return 0;
}

void KavraMediaPlayer::setVideoPlay(const std::shared_ptr<NativeWindow>& window) {
    if (mVideoStreamIndex >= 0 && window) {
        mRenderManager.setVideoPlay(window, mRotation);
    }
}

int KavraMediaPlayer::setAudioPlay(JNIEnv* env, jobject callback) {
    return mAudioStreamIndex >= 0 ? mRenderManager.setAudioPlay(env, callback) : -1;
}

int KavraMediaPlayer::setAudioPlay(std::unique_ptr<PcmSink> sink) {
    return mAudioStreamIndex >= 0 ? mRenderManager.setAudioPlay(std::move(sink)) : -1;
}

void KavraMediaPlayer::unSelectTrack(bool audio, bool video) {
    if (audio) {
        mRenderManager.closeStreamRender(kAudio);
        ALOGV("unSelect Audio Stream");
    }
    if (video) {
        mRenderManager.closeStreamRender(kVideo);
        ALOGV("unSelect video Stream");
    }
}

void KavraMediaPlayer::start() {
    NativeMutexLock lock(mStatusLock);
    const int status = mStatus.load();
    ALOGV("start:%d", status);
    if (status != MEDIA_PLAYER_PREPARED && status != MEDIA_PLAYER_PAUSED && status != MEDIA_PLAYER_PLAYBACK_COMPLETE) {
        return;
    }
    if (status == MEDIA_PLAYER_PLAYBACK_COMPLETE) {
        // Replays from the very beginning of the file.
        mSeekPosition = 0;
    }
    updateStatusLocked(MEDIA_PLAYER_STARTED);
}

void KavraMediaPlayer::resume() { start(); }

void KavraMediaPlayer::pause() {
    NativeMutexLock lock(mStatusLock);
    if (mStatus.load() == MEDIA_PLAYER_STARTED) {
        ALOGV("pause:%d", mStatus.load());
        updateStatusLocked(MEDIA_PLAYER_PAUSED);
    }
}

void KavraMediaPlayer::seekTo(int ms, bool /*accurate*/) {
    const int duration = mDuration.load();
    if (ms < 0 || ms > duration) {
        ALOGW("seekTime[%d]does not belong to [0------%d]", ms, duration);
        return;
    }
    requestSeek(mStartTime + ms, false);
}

void KavraMediaPlayer::requestSeek(int absoluteMs, bool forceDemuxSeek) {
    NativeMutexLock lock(mSeekLock);
    // Every seek is frame-accurate, whatever the caller asked for.
    mAccurateSeek = true;
    mSeekRequests += 1;
    mIsSeekPositonChanged = true;
    if (forceDemuxSeek) {
        mForceDemuxSeek = true;
    }
    mSeekPosition = absoluteMs;
    mRenderManager.closeSyncRender();
    {
        NativeMutexLock statusLock(mStatusLock);
        if (mStatus.load() == MEDIA_PLAYER_PLAYBACK_COMPLETE) {
            updateStatusLocked(MEDIA_PLAYER_PAUSED);
        }
        mStatusCond.notifyAll();
    }
    mRenderManager.setCurrentTime(absoluteMs);
}

void KavraMediaPlayer::stop() {
    ALOGV("stop");
    updateStatus(MEDIA_PLAYER_STOPPED);
    mRenderManager.closeStreamRender(RenderManager::kStreamBoth);
    if (mDecoder) {
        mDecoder->stop();
    }
    // A render thread waiting for the other at a seek goes back to its gate.
    {
        NativeMutexLock lock(mSeekWorkLock);
        mSeekWorkCond.notifyAll();
    }
    // The audio render thread ends on its own at its next gate; release()
    // joins it.
    if (mVideoRenderThread.joinable()) {
        mVideoRenderThread.join();
    }
    ALOGV("stop ed");
}

void KavraMediaPlayer::reset() { ALOGV("reset"); }

void KavraMediaPlayer::joinRenderThreads() {
    if (mVideoRenderThread.joinable()) {
        mVideoRenderThread.join();
    }
    if (mAudioRenderThread.joinable()) {
        mAudioRenderThread.join();
    }
}

void KavraMediaPlayer::freeDecoder() {
    if (mDecoder) {
        mDecoder->release();
        mDecoder.reset();
    }
    mVideoQueue = nullptr;
    mAudioQueue = nullptr;
    attachFrameJump();
}

void KavraMediaPlayer::attachFrameJump() {
    NativeMutexLock lock(mSeekWorkLock);
    mFrameJump.attach(mDecoder.get(), mVideoQueue, mAudioQueue);
}

void KavraMediaPlayer::release() {
    ALOGV("release");
    if (mDecoder || mVideoRenderThread.joinable() || mAudioRenderThread.joinable()) {
        const int status = mStatus.load();
        if (status != MEDIA_PLAYER_STOPPED && status != MEDIA_PLAYER_STATE_ERROR) {
            stop();
        }
        // The render threads use the decoders' queues: joined before the
        // decoders go.
        joinRenderThreads();
        freeDecoder();
    }
    ALOGV("release ed");
}

void KavraMediaPlayer::setLooping(int n) { mLoopCount = n; }

void KavraMediaPlayer::setPlaySpeed(float speed) { mRenderManager.setSyncTimerSpeed(speed); }

void KavraMediaPlayer::setPlaySpeedMode(int mode, int /*unused*/) { ALOGV("setspeedMode:%d", mode); }

int KavraMediaPlayer::setAudioTrack(int track) {
    const int status = mStatus.load();
    const int running = MEDIA_PLAYER_PREPARED | MEDIA_PLAYER_STARTED | MEDIA_PLAYER_PAUSED |
                        MEDIA_PLAYER_PLAYBACK_COMPLETE;
    if (!mDecoder || mAudioStreamIndex < 0 || (status & running) != status) {
        ALOGE("selectAudioTrack error:%d.", -1);
        return -1;
    }
    // The container index of the track-th audio stream.
    MediaInfo info = mDecoder->getMediaInfo();
    int streamIndex = -1;
    for (int i = 0, seen = 0; info.streamInfos != nullptr && i < info.streamNum; ++i) {
        if (info.streamInfos[i].mediaType == 1 && seen++ == track) {
            streamIndex = i;
            break;
        }
    }
    if (streamIndex < 0) {
        ALOGE("selectAudioTrack error:%d.", -1);
        return -1;
    }
    int result;
    {
        // No seek work runs (it reads the audio queue) and the audio render
        // thread holds no slot while the old decoder is freed and the new one
        // made.
        NativeMutexLock work(mSeekWorkLock);
        NativeMutexLock swap(mAudioSwapLock);
        result = mDecoder->selectAudioTrack(streamIndex);
        mAudioQueue = mDecoder->getAudioOutputQueue();
        mAudioStreamIndex = mDecoder->getCurrentAudioStreamIndex();
        mFrameJump.attach(mDecoder.get(), mVideoQueue, mAudioQueue);
    }
    if (result < 0) {
        ALOGE("selectAudioTrack error:%d.", result);
        return -1;
    }
    const int current = mAudioStreamIndex.load();
    if (current >= 0 && current < info.streamNum) {
        mChannels = info.streamInfos[current].channels;
        mSampleRate = info.streamInfos[current].samplerate;
    }
    // The new stream is read from the current position on; video shows the
    // frame at that position again and goes on from there.
    const int pending = mSeekPosition.load();
    requestSeek(pending != -1 ? pending : mRenderManager.getCurrentTime() + mStartTime, true);
    return result;
}

int KavraMediaPlayer::getCurrentPosition() {
    const int pending = mSeekPosition.load();
    if (pending != -1) {
        const int relative = pending - mStartTime;
        return relative > 0 ? relative : 0;
    }
    return mRenderManager.getCurrentTime();
}

int KavraMediaPlayer::getVideoWidth() const {
    const int rotation = mRotation.load();
    return (rotation == 90 || rotation == 270) ? mHeight.load() : mWidth.load();
}

int KavraMediaPlayer::getVideoHeight() const {
    const int rotation = mRotation.load();
    return (rotation == 90 || rotation == 270) ? mWidth.load() : mHeight.load();
}

int KavraMediaPlayer::getAudioTrackIndex() {
    return mDecoder ? mDecoder->getCurrentAudioStreamIndex() : -1;
}

// ---- Render threads -------------------------------------------------------

void KavraMediaPlayer::onRenderFrame(int stream) {
    const bool video = stream == kVideo;
    std::atomic<bool>& inSeek = video ? mVideoInSeek : mAudioInSeek;
    for (;;) {
        if (!isRenderFrame()) {
            setFinished(stream);
            ALOGE(video ? "onRenderVideoFrame thread finish." : "onRenderAudioFrame thread finish.");
            return;
        }
        if (mSeekPosition.load() != -1) {
            inSeek = true;
            handleSeekWork();
            inSeek = false;
            continue;
        }
        if (video) {
            renderNextFrame(stream);
        } else {
            NativeMutexLock swap(mAudioSwapLock);
            renderNextFrame(stream);
        }
    }
}

void KavraMediaPlayer::renderNextFrame(int stream) {
    const bool video = stream == kVideo;
    FrameBufferQueue* queue = video ? mVideoQueue.load() : mAudioQueue.load();
    const int index = queue != nullptr ? queue->dequeueOutputBufferIndex(kFrameWaitMs) : -3;
    if (index == -3) {
        // Aborted (the pipeline is stopping): wait for the gate to say so
        // instead of spinning.
        NativeMutexLock lock(mStatusLock);
        mStatusCond.wait(mStatusLock, kFrameWaitMs);
        return;
    }
    if (index < 0) {
        return;
    }
    FrameBuffer* frame = queue->getBuffer(index);
    const bool end = frame != nullptr && frame->size == 0;
    if (frame != nullptr && !end && mSeekPosition.load() == -1 &&
        (video || mStatus.load() == MEDIA_PLAYER_STARTED)) {
        mRenderManager.renderFrame(frame, stream);
    }
    queue->releaseOutputBuffer();
    if (end) {
        ALOGE(video ? "onRenderVideoFrame finish." : "onRenderAudioFrame finish.");
        setFinished(stream);
    }
}

bool KavraMediaPlayer::isRenderFrame() {
    bool wakeSeekWaiter = false;
    bool result = false;
    {
        NativeMutexLock lock(mStatusLock);
        for (;;) {
            const int status = mStatus.load();
            const bool seekPending = mSeekPosition.load() != -1;
            if (status == MEDIA_PLAYER_STARTED) {
                if (seekPending) {
                    mRenderManager.closeSyncRender();
                } else {
                    mRenderManager.openSyncRender();
                }
                result = true;
                break;
            }
            mRenderManager.closeSyncRender();
            if ((status & kGateWaiting) == status) {
                if (seekPending) {
                    // A seek is carried out even while paused, so that the
                    // picture at the target is shown.
                    result = true;
                    break;
                }
                mStatusCond.wait(mStatusLock);
                continue;
            }
            // Error, stopped, or a status that never renders.
            wakeSeekWaiter = seekPending;
            break;
        }
    }
    if (wakeSeekWaiter) {
        // Outside mStatusLock: seek work holds mSeekWorkLock while it may
        // change the status.
        NativeMutexLock lock(mSeekWorkLock);
        mSeekWorkCond.notifyAll();
    }
    return result;
}

void KavraMediaPlayer::setFinished(int stream) {
    (stream == kVideo ? mVideoRenderFinished : mAudioRenderFinished) = true;
    updateRenderFinishStatus();
}

void KavraMediaPlayer::updateRenderFinishStatus() {
    NativeMutexLock lock(mFinishLock);
    if (!mVideoRenderFinished || !mAudioRenderFinished || mSeekPosition.load() != -1) {
        // A pending seek clears the flags again.
        return;
    }
    const int status = mStatus.load();
    if (status == MEDIA_PLAYER_STOPPED || status == MEDIA_PLAYER_STATE_ERROR ||
        status == MEDIA_PLAYER_PLAYBACK_COMPLETE) {
        return;
    }
    const int loops = mLoopCount.load();
    if (loops != 0) {
        if (loops > 0) {
            mLoopCount = loops - 1;
        }
        // The render threads pick the restart up as a seek.
        mSeekPosition = 0;
        NativeMutexLock statusLock(mStatusLock);
        mStatusCond.notifyAll();
        return;
    }
    ALOGV("MEDIA_PLAYER_PLAYBACK_COMPLETE");
    updateStatus(MEDIA_PLAYER_PLAYBACK_COMPLETE);
}

// ---- Seeking ---------------------------------------------------------------

void KavraMediaPlayer::handleSeekWork() {
    NativeMutexLock work(mSeekWorkLock);
    if (mSeekPosition.load() == -1 || isStopped()) {
        return;
    }
    const bool video = mVideoQueue.load() != nullptr;
    const bool audio = mAudioQueue.load() != nullptr;
    if (!video) {
        int target;
        {
            NativeMutexLock seek(mSeekLock);
            target = mSeekPosition.load();
            mIsSeekPositonChanged = false;
            mForceDemuxSeek = false;
        }
        mFrameJump.seekToInner(target);
        {
            NativeMutexLock seek(mSeekLock);
            if (mIsSeekPositonChanged) {
                // A newer request came meanwhile; the next pass serves it.
                return;
            }
            mRenderManager.setCurrentTime(target);
            mSeekPosition = -1;
        }
        mFrameJump.jumpAudioFrameTo(target);
        return;
    }
    const bool finished = mVideoRenderFinished || (audio && mAudioRenderFinished);
    if (!finished) {
        // Both threads stop presenting before the work starts; the second
        // to arrive does it.
        if (!mVideoInSeek || !mAudioInSeek) {
            mSeekWorkCond.wait(mSeekWorkLock, kRendezvousWaitMs);
            return;
        }
    } else {
        // A finished thread may be parked at its gate: no rendezvous. The
        // demultiplexer is repositioned first, so the jump decodes forward.
        int target;
        {
            NativeMutexLock seek(mSeekLock);
            target = mSeekPosition.load();
            mIsSeekPositonChanged = false;
            mForceDemuxSeek = false;
        }
        mFrameJump.seekToInner(target);
    }
    const int shown = mFrameJump.jumpVideoFrameTo(mSeekPosition.load());
    if (shown != -1 && audio) {
        // Audio resumes with the frame after the one that reaches the
        // picture's time.
        mFrameJump.jumpAudioFrameTo(shown);
    }
    if (!finished) {
        mSeekWorkCond.notifyAll();
    }
}

void KavraMediaPlayer::onStreamEnd(int stream) { setFinished(stream); }

void KavraMediaPlayer::onRepositioned() {
    if (mVideoQueue.load() != nullptr) {
        mVideoRenderFinished = false;
    }
    if (mAudioQueue.load() != nullptr) {
        mAudioRenderFinished = false;
    }
}
