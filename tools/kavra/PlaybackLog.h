#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

// What `kavra play` observed of one playback: the player's events, the
// pictures that reached the window with their times, how each seek landed
// and how far the picture was from the sound at each presented frame.
// Written from the player's threads, read at the end. Thread-safe.
class PlaybackLog {
public:
    using Clock = std::chrono::steady_clock;

    // Times of events are counted from `origin`.
    explicit PlaybackLog(Clock::time_point origin);

    // Where the sound is: true with the stream time (ms) being heard.
    void setAudioPosition(std::function<bool(double*)> position) { mAudioPosition = std::move(position); }
    // Whether a seek is still being carried out by the player.
    void setSeekPending(std::function<bool()> pending) { mSeekPending = std::move(pending); }
    // The player's count of seek requests, and which request its last seek
    // picture served with that picture's time (request << 32 | time): they
    // tell a seek's picture from one that was already on its way.
    void setSeekResult(std::function<uint32_t()> requests, std::function<uint64_t()> result) {
        mSeekRequests = std::move(requests);
        mSeekResult = std::move(result);
    }
    // Whether the player is playing (not paused, stopped or complete).
    void setPlaying(std::function<bool()> playing) { mPlaying = std::move(playing); }

    void onEvent(int what, int arg1, int arg2);
    // A picture with presentation time ptsMs reached the window.
    void onFramePresented(int ptsMs);
    // Called just before the player's seekTo(targetMs).
    void onSeek(int targetMs);
    void markStart() { mStart = Clock::now(); }
    void markEnd() { mEnd = Clock::now(); }

    bool completed() const { return mCompleted.load(); }
    bool failed() const { return mFailed.load(); }
    bool prepared() const { return mPrepared.load(); }
    uint64_t framesPresented() const { return mFramesPresented.load(); }
    // Time of the last picture or of the last change seen, for stall checks.
    Clock::time_point lastActivity() const;
    // Position (ms) of the last picture, relative to `startMs`.
    int lastPtsMs() const { return mLastPts.load(); }

    // The whole log as one JSON object, with the media's start time (the
    // origin of seek targets) and duration.
    std::string json(int framesDropped, int startMs, int durationMs) const;

private:
    struct Event {
        int what;
        int arg1;
        int arg2;
        double tMs;
    };
    struct Seek {
        int targetMs;
        Clock::time_point called;
        // The player's number for this request.
        uint32_t request;
        bool shown;
        int shownPtsMs;
        double latencyMs;
    };

    const Clock::time_point mOrigin;
    Clock::time_point mStart;
    Clock::time_point mEnd;
    std::function<bool(double*)> mAudioPosition;
    std::function<bool()> mSeekPending;
    std::function<uint32_t()> mSeekRequests;
    std::function<uint64_t()> mSeekResult;
    std::function<bool()> mPlaying;
    std::atomic<bool> mCompleted{false};
    std::atomic<bool> mFailed{false};
    std::atomic<bool> mPrepared{false};
    std::atomic<uint64_t> mFramesPresented{0};
    std::atomic<int> mLastPts{0};

    mutable std::mutex mMutex;
    // Guarded by mMutex.
    std::vector<Event> mEvents;
    std::vector<Seek> mSeeks;
    std::vector<double> mAvOffsets;
    bool mHaveFirstPts = false;
    int mFirstPts = 0;
    Clock::time_point mLastActivity;
};
