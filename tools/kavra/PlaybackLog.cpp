#include "PlaybackLog.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <thread>

#include "ToolSupport.h"

namespace {
// The picture a seek ends with can reach the window a moment before the
// player counts the seek as shown; a picture that arrives while a seek is
// unresolved is given this long to be confirmed as the seek's picture.
constexpr auto kSeekSettle = std::chrono::milliseconds(3);

double msBetween(PlaybackLog::Clock::time_point from, PlaybackLog::Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
}
}  // namespace

PlaybackLog::PlaybackLog(Clock::time_point origin)
    : mOrigin(origin), mStart(origin), mEnd(origin), mLastActivity(origin) {
    mEvents.reserve(64);
    mAvOffsets.reserve(1 << 14);
}

void PlaybackLog::onEvent(int what, int arg1, int arg2) {
    Clock::time_point now = Clock::now();
    {
        std::lock_guard<std::mutex> lock(mMutex);
        mEvents.push_back(Event{what, arg1, arg2, msBetween(mOrigin, now)});
        mLastActivity = now;
    }
    if (what == 1) {
        mPrepared = true;
    } else if (what == 2) {
        mCompleted = true;
    } else if (what == 100) {
        mFailed = true;
    }
}

void PlaybackLog::onSeek(int targetMs) {
    // Called just before the request: it gets the next number.
    const uint32_t request = mSeekRequests ? mSeekRequests() + 1 : 0;
    std::lock_guard<std::mutex> lock(mMutex);
    mSeeks.push_back(Seek{targetMs, Clock::now(), request, false, 0, 0});
}

void PlaybackLog::onFramePresented(int ptsMs) {
    const Clock::time_point now = Clock::now();
    // The earliest request still without its picture; none when every
    // seek is resolved.
    bool unresolved = false;
    uint32_t waitingFor = UINT32_MAX;
    {
        std::lock_guard<std::mutex> lock(mMutex);
        for (const Seek& s : mSeeks) {
            if (!s.shown) {
                unresolved = true;
                waitingFor = std::min(waitingFor, s.request);
            }
        }
    }
    uint64_t result = mSeekResult ? mSeekResult() : 0;
    if (unresolved && mSeekResult) {
        const Clock::time_point until = now + kSeekSettle;
        while (static_cast<uint32_t>(result >> 32) < waitingFor && Clock::now() < until) {
            std::this_thread::sleep_for(std::chrono::microseconds(200));
            result = mSeekResult();
        }
    }
    const bool pending = mSeekPending && mSeekPending();
    double audioMs = 0;
    // Picture against sound only while playing: paused, the device may
    // still be playing out what it had queued.
    const bool haveAudio = !pending && mPlaying && mPlaying() && mAudioPosition && mAudioPosition(&audioMs);

    std::lock_guard<std::mutex> lock(mMutex);
    mFramesPresented += 1;
    mLastPts = ptsMs;
    mLastActivity = now;
    if (!mHaveFirstPts) {
        mHaveFirstPts = true;
        mFirstPts = ptsMs;
    }
    // A seek's picture is the one the player showed for it (or for a later
    // seek that replaced it), not a picture that was already on its way.
    const uint32_t served = static_cast<uint32_t>(result >> 32);
    const int shownPts = static_cast<int32_t>(static_cast<uint32_t>(result));
    if (shownPts == ptsMs) {
        for (Seek& s : mSeeks) {
            if (!s.shown && s.called <= now && served >= s.request) {
                s.shown = true;
                s.shownPtsMs = ptsMs;
                s.latencyMs = msBetween(s.called, now);
            }
        }
    }
    if (haveAudio) {
        mAvOffsets.push_back(ptsMs - audioMs);
    }
}

PlaybackLog::Clock::time_point PlaybackLog::lastActivity() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mLastActivity;
}

std::string PlaybackLog::json(int framesDropped, int startMs, int durationMs) const {
    std::lock_guard<std::mutex> lock(mMutex);
    tool::Json j;
    j.beginObject();
    j.field("start_ms", startMs).field("duration_ms", durationMs);
    j.beginArray("events");
    for (const Event& e : mEvents) {
        j.beginObject().field("what", e.what).field("arg1", e.arg1).field("arg2", e.arg2);
        j.field("t_ms", std::round(e.tMs * 10) / 10).endObject();
    }
    j.endArray();
    j.field("frames_presented", static_cast<long long>(mFramesPresented.load()));
    j.field("frames_dropped", framesDropped);
    if (mHaveFirstPts) {
        j.field("first_pts_ms", mFirstPts).field("last_pts_ms", mLastPts.load());
    } else {
        j.key("first_pts_ms").null().key("last_pts_ms").null();
    }
    j.field("completed", mCompleted.load());
    j.field("wall_ms", std::round(msBetween(mStart, mEnd)));
    j.beginArray("seeks");
    for (const Seek& s : mSeeks) {
        j.beginObject().field("target_ms", s.targetMs);
        if (s.shown) {
            j.field("shown_pts_ms", s.shownPtsMs).field("latency_ms", std::round(s.latencyMs * 10) / 10);
        } else {
            j.key("shown_pts_ms").null().key("latency_ms").null();
        }
        j.endObject();
    }
    j.endArray();
    j.key("av_offset_ms").beginObject();
    if (mAvOffsets.empty()) {
        j.key("mean").null().key("p95_abs").null().key("max_abs").null();
    } else {
        std::vector<double> abs;
        abs.reserve(mAvOffsets.size());
        double sum = 0;
        for (double o : mAvOffsets) {
            sum += o;
            abs.push_back(std::fabs(o));
        }
        std::sort(abs.begin(), abs.end());
        size_t p95 = std::min(abs.size() - 1, static_cast<size_t>(std::ceil(abs.size() * 0.95)) - 1);
        j.field("mean", std::round(sum / mAvOffsets.size() * 10) / 10);
        j.field("p95_abs", std::round(abs[p95] * 10) / 10).field("max_abs", std::round(abs.back() * 10) / 10);
    }
    j.field("samples", static_cast<long long>(mAvOffsets.size()));
    j.endObject();
    j.endObject();
    return j.str();
}
