#pragma once

#include <atomic>

#include "Common/FrameBuffer.h"
#include "Common/FrameBufferQueue.h"
#include "Common/NativeMutex.h"
#include "Player/KavraMediaDecoder.h"
#include "Render/RenderManager.h"

// The frame-accurate part of a player's seek, on the decoded streams: it
// repositions the pipeline unless the target lies just ahead, decodes forward
// dropping every video frame that ends before the target, shows the first
// one that reaches it with the clock set to its time, and drops audio up to
// the same point. One thread at a time uses it (the player's seek work); the
// request it serves belongs to the player. Log tag "KavraMediaPlayer".
class FrameJump {
public:
    // What the jump asks of, and reports to, its player.
    class Host {
    public:
        virtual bool isStopped() const = 0;
        // The end-of-stream frame of a stream (RenderManager selector) was
        // taken.
        virtual void onStreamEnd(int stream) = 0;
        // The pipeline was repositioned: both streams are read again.
        virtual void onRepositioned() = 0;

    protected:
        ~Host() = default;
    };
    // The player's seek request: the absolute target in ms (-1 when none),
    // set together with `targetMoved` under `lock` by every request;
    // `forceDemuxSeek` asks for a reposition even when decoding forward
    // would do.
    struct Request {
        NativeMutex& lock;
        std::atomic<int>& target;
        std::atomic<bool>& targetMoved;
        std::atomic<bool>& forceDemuxSeek;
        // Numbers the requests.
        std::atomic<uint32_t>& serial;
    };

    FrameJump(Host& host, RenderManager& renderManager, const Request& request);
    FrameJump(const FrameJump&) = delete;
    FrameJump& operator=(const FrameJump&) = delete;

    // The pipeline of the current run and its output queues (null when a
    // stream is absent).
    void attach(KavraMediaDecoder* decoder, FrameBufferQueue* video, FrameBufferQueue* audio);
    // Repositions the pipeline at `ms` (absolute); returns `ms`.
    int seekToInner(int ms);
    // Decodes forward to the first video frame that reaches the target and
    // shows it, clearing the request: that frame's time, the target when the
    // stream ended first, -1 when no frame came (the request is cleared
    // then too, after a reposition).
    int jumpVideoFrameTo(int ms);
    // Drops audio frames up to and including the first that reaches `ms`:
    // that frame's time, -1 at the end of the stream or when none came.
    int jumpAudioFrameTo(int ms);
    // The request the last jump that showed a picture served, and that
    // picture's time in ms: request number << 32 | (uint32) time.
    uint64_t shownJumps() const { return mShown.load(); }

private:
    // Shows a frame at once (the clock is stopped during a seek).
    void presentNow(FrameBuffer* frame);
    // Clears the request; under the request's lock.
    void clearRequestLocked();
    // Lets the pipeline leave out pictures that end before `ms` (-1: none).
    void setDecodeFloor(int ms);

    Host& mHost;
    RenderManager& mRenderManager;
    Request mRequest;
    KavraMediaDecoder* mDecoder;
    FrameBufferQueue* mVideoQueue;
    FrameBufferQueue* mAudioQueue;
    // Where the last reposition went, until the first frame after it was
    // examined; -1 otherwise.
    int mRepositionedAt;
    // The decode floor last set; -1 when none.
    int mDecodeFloor;
    std::atomic<uint64_t> mShown{0};
};
