#include "Player/FrameJump.h"

#include <android/log.h>

#include <algorithm>

extern "C" {
#include <libavutil/time.h>
}

namespace {
const char* const kTag = "KavraMediaPlayer";
// How long the jump waits for the next frame before it gives the seek up.
constexpr int kJumpWaitMs = 600;
// A target at most this far after the frame in hand is reached by decoding
// forward, without repositioning the demultiplexer.
constexpr int kDecodeForwardMs = 1000;
// How often a reposition that landed after its target goes back further.
constexpr int kSeekRetries = 4;
// While requests keep replacing each other during a jump (a finger dragging
// a slider), a frame decoded on the way is shown at most this often, so the
// picture follows the drag instead of standing still until it ends.
constexpr int64_t kPreviewEveryUs = 100000;
}  // namespace

FrameJump::FrameJump(Host& host, RenderManager& renderManager, const Request& request)
    : mHost(host),
      mRenderManager(renderManager),
      mRequest(request),
      mDecoder(nullptr),
      mVideoQueue(nullptr),
      mAudioQueue(nullptr),
      mRepositionedAt(-1),
      mDecodeFloor(-1) {}

void FrameJump::attach(KavraMediaDecoder* decoder, FrameBufferQueue* video, FrameBufferQueue* audio) {
    mDecoder = decoder;
    mVideoQueue = video;
    mAudioQueue = audio;
    mRepositionedAt = -1;
    // The decoder may be the one already attached (an audio track switch),
    // with a floor set by a jump: it decodes everything again.
    if (mDecoder != nullptr) {
        mDecoder->setDecodeFloor(-1);
    }
    mDecodeFloor = -1;
}

void FrameJump::setDecodeFloor(int ms) {
    if (mDecoder != nullptr && ms != mDecodeFloor) {
        mDecoder->setDecodeFloor(ms);
    }
    mDecodeFloor = ms;
}

void FrameJump::clearRequestLocked() {
    mRequest.target = -1;
    mRequest.targetMoved = false;
    mRequest.forceDemuxSeek = false;
}

int FrameJump::seekToInner(int ms) {
    if (mDecoder != nullptr) {
        mDecoder->seekTo(ms);
    }
    mRepositionedAt = ms;
    mHost.onRepositioned();
    return ms;
}

void FrameJump::presentNow(FrameBuffer* frame) {
    // Waiting one millisecond makes the renderer take the frame rather than
    // drop it as late.
    VideoRender* render = mRenderManager.getVideoRender();
    if (render != nullptr && mRenderManager.isVideoEnabled()) {
        render->renderFrame(frame, 1);
    }
}

int FrameJump::jumpVideoFrameTo(int target) {
    // The request's lock is held while a frame is examined, never while the
    // pipeline repositions (that waits for the demux thread, which takes
    // the queues' locks).
    int result = target;
    int retries = 0;
    int examined = 0;
    bool replaced = false;
    int64_t lastShownUs = av_gettime_relative();
    FrameBufferQueue* queue = mVideoQueue;
    while (queue != nullptr && !mHost.isStopped()) {
        const int index = queue->dequeueOutputBufferIndex(kJumpWaitMs);
        if (index < 0) {
            if (mHost.isStopped()) {
                break;
            }
            // The decoder gave nothing: reposition, let playback go on from
            // there and give the seek up (unless a newer one came).
            mRequest.lock.lock();
            const int wanted = mRequest.target;
            mRequest.lock.unlock();
            setDecodeFloor(-1);
            seekToInner(wanted);
            NativeMutexLock lock(mRequest.lock);
            mRepositionedAt = -1;
            mRenderManager.setCurrentTime(wanted);
            if (!mRequest.targetMoved) {
                clearRequestLocked();
            }
            return -1;
        }
        FrameBuffer* frame = queue->getBuffer(index);
        if (frame == nullptr) {
            queue->releaseOutputBuffer();
            continue;
        }
        mRequest.lock.lock();
        if (frame->size == 0) {
            // Past the last frame: the last picture stays, the clock shows
            // the target.
            result = mRequest.target;
            clearRequestLocked();
            setDecodeFloor(-1);
            mRenderManager.setCurrentTime(result);
            queue->releaseOutputBuffer();
            mHost.onStreamEnd(RenderManager::kStreamVideo);
            mRequest.lock.unlock();
            return result;
        }
        const int pts = frame->ptsMs;
        const int wanted = mRequest.target;
        const int repositionedAt = mRepositionedAt;
        mRepositionedAt = -1;
        int repositionTo = -1;
        if (repositionedAt > 0 && pts > wanted && retries < kSeekRetries) {
            // Some containers (MPEG-TS) land after the key frame before the
            // target, and decoding then starts at a later key frame: go back
            // further.
            ++retries;
            repositionTo = std::max(0, wanted - kDecodeForwardMs * (1 << retries));
        } else if (mRequest.targetMoved.exchange(false)) {
            // The first frame examined for a new target.
            __android_log_print(ANDROID_LOG_ERROR, kTag, "mIsSeekPositonChanged");
            replaced = replaced || examined > 0;
            const bool force = mRequest.forceDemuxSeek.exchange(false);
            // Pictures before an earlier, later target may have been left
            // out already: a target before that one needs a reposition.
            const bool leftOut = mDecodeFloor >= 0 && wanted < mDecodeFloor;
            if (force || leftOut || pts > wanted || wanted - pts > kDecodeForwardMs) {
                repositionTo = wanted;
            }
            setDecodeFloor(wanted);
        }
        // Frames that end before the target are dropped unconverted; the
        // first whose span holds it (or that starts after it) is shown. The
        // exact end tells a frame ending at the target (dropped) from one
        // ending a fraction after it; without one, a frame whose truncated
        // end reaches the target counts.
        const int end = frame->endMs > pts ? frame->endMs : pts + frame->durationMs + 1;
        const bool reached = repositionTo < 0 && wanted < end;
        ++examined;
        if (reached) {
            setDecodeFloor(-1);
            presentNow(frame);
            mShown = (static_cast<uint64_t>(mRequest.serial.load()) << 32) | static_cast<uint32_t>(pts);
            mRequest.target = -1;
            mRenderManager.setCurrentTime(pts);
            result = pts;
        } else if (replaced && av_gettime_relative() - lastShownUs >= kPreviewEveryUs) {
            // A preview on the way; the jump goes on to the exact frame.
            presentNow(frame);
            lastShownUs = av_gettime_relative();
        }
        queue->releaseOutputBuffer();
        mRequest.lock.unlock();
        if (reached) {
            return result;
        }
        if (repositionTo >= 0) {
            seekToInner(repositionTo);
        }
    }
    setDecodeFloor(-1);
    return result;
}

int FrameJump::jumpAudioFrameTo(int target) {
    FrameBufferQueue* queue = mAudioQueue;
    while (queue != nullptr && !mHost.isStopped()) {
        const int index = queue->dequeueOutputBufferIndex(kJumpWaitMs);
        if (index < 0) {
            return -1;
        }
        FrameBuffer* frame = queue->getBuffer(index);
        const bool end = frame != nullptr && frame->size == 0;
        const bool reached = frame != nullptr && !end && frame->ptsMs + frame->durationMs >= target;
        const int pts = reached ? frame->ptsMs : -1;
        queue->releaseOutputBuffer();
        if (end) {
            mHost.onStreamEnd(RenderManager::kStreamAudio);
            return -1;
        }
        if (reached) {
            return pts;
        }
    }
    return -1;
}
