// The player through the real pipeline: frames go to an in-memory window and
// are identified by the index drawn into their pixels, PCM goes to a sink
// that plays it at the stream's rate as a device does, events to a native
// listener. Every wait is bounded; nothing asserts on wall-clock time.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "NativeEventPostListener.h"
#include "MemoryNativeWindow.h"
#include "Player/KavraMediaPlayer.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"
#include "support/FrameIndex.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

using Clock = std::chrono::steady_clock;
using P = KavraMediaPlayer;
// Bounds for waits that end much sooner unless something is broken; wide
// enough for the sanitizer builds.
constexpr int kWaitMs = 30000;
constexpr int kRate = 44100;

using Event = std::array<int, 3>;  // what, arg1, arg2

class Events : public NativeEventPostListener {
public:
    void notify(int what, int arg1, int arg2) override {
        std::lock_guard<std::mutex> lock(mMutex);
        mEvents.push_back({what, arg1, arg2});
    }
    std::vector<Event> all() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mEvents;
    }
    int count(int what) const {
        std::vector<Event> e = all();
        return static_cast<int>(std::count_if(e.begin(), e.end(), [&](const Event& x) { return x[0] == what; }));
    }
    bool waitFor(int what, int n) const { return eventually([&] { return count(what) >= n; }, kWaitMs); }

private:
    mutable std::mutex mMutex;
    std::vector<Event> mEvents;
};

// Keeps the left channel of every delivery and, like a sound device with a
// 40 ms buffer, blocks while more than that waits to be played at `speed`
// times the stream's rate.
class Sink : public PcmSink {
public:
    Sink(int channels, double speed) : mChannels(channels > 0 ? channels : 1), mSpeed(speed) {}
    int deliver(const uint8_t* pcm, int size) override {
        const int16_t* samples = reinterpret_cast<const int16_t*>(pcm);
        const int frames = size / 2 / mChannels;
        {
            std::lock_guard<std::mutex> lock(mMutex);
            for (int i = 0; i < frames; ++i) {
                mLeft.push_back(samples[i * mChannels]);
            }
        }
        const Clock::time_point now = Clock::now();
        mPlayedUntil = std::max(mPlayedUntil, now) + std::chrono::microseconds(
                                                         static_cast<int64_t>(frames * 1e6 / kRate / mSpeed));
        std::this_thread::sleep_until(mPlayedUntil - std::chrono::milliseconds(40));
        return 0;
    }
    size_t size() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mLeft.size();
    }
    // `count` samples from `first` on; waits (bounded) until they came.
    std::vector<int16_t> from(size_t first, size_t count) const {
        eventually([&] { return size() >= first + count; }, kWaitMs);
        std::lock_guard<std::mutex> lock(mMutex);
        count = std::min(count, mLeft.size() - std::min(first, mLeft.size()));
        return std::vector<int16_t>(mLeft.begin() + first, mLeft.begin() + first + count);
    }
    bool waitFor(size_t n) const { return eventually([&] { return size() >= n; }, kWaitMs); }

private:
    const int mChannels;
    const double mSpeed;
    Clock::time_point mPlayedUntil;
    mutable std::mutex mMutex;
    std::vector<int16_t> mLeft;
};

// Tone frequency in Hz from the zero crossings of a stretch of samples.
double frequency(const std::vector<int16_t>& s) {
    int crossings = 0;
    for (size_t i = 1; i < s.size(); ++i) {
        crossings += (s[i - 1] < 0) != (s[i] < 0);
    }
    return s.empty() ? 0 : crossings / 2.0 * kRate / s.size();
}

// A time source for the playback clock that follows the pictures `window`
// has queued: each one lets the clock run 3 ms less than a 30 fps frame, so
// the next frame is never due before it arrives, however busy the machine.
// Frames arriving late may be dropped by design; tests that count frames then
// check what the player hands over, not how fast the machine is. Only
// differences of this source count, so the clock's start is free.
Timer::TimeSource lockedTime(std::shared_ptr<MemoryNativeWindow> window, double speed) {
    const Clock::time_point t0 = Clock::now();
    return [window, t0, speed] {
        const int64_t realUs = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - t0).count();
        const int64_t perFrameUs = static_cast<int64_t>((1000000 / 30 - 3000) / speed);
        return std::min<int64_t>(realUs, static_cast<int64_t>(window->queuedCount()) * perFrameUs);
    };
}

// A player on one fixture, prepared, with window, sink and listener.
struct Session {
    // lockClock: the clock follows lockedTime().
    explicit Session(const std::string& name, double speed = 1.0, bool lockClock = false)
        : name(name),
          window(std::make_shared<MemoryNativeWindow>()),
          player(lockClock ? lockedTime(window, speed) : Timer::TimeSource()) {
        auto listener = std::unique_ptr<Events>(new Events());
        events = listener.get();
        player.setListener(std::move(listener));
        if (player.setDataSource(fixture(name).c_str()) != 0) {
            return;
        }
        player.setVideoPlay(window);
        if (player.getAudioStreamIndex() >= 0) {
            auto s = std::unique_ptr<Sink>(new Sink(player.getChannels(), speed));
            sink = s.get();
            player.setAudioPlay(std::move(s));
        }
        player.setPlaySpeed(static_cast<float>(speed));
        prepared = player.prepare() == 0;
    }
    ~Session() {
        player.stop();
        player.release();
    }
    uint64_t queued() const { return window->queuedCount(); }
    int frameAt(size_t i) const {
        MemoryNativeWindow::QueuedBuffer b = window->kept(i);
        return b.bytes.empty() ? -2 : frameIndexFromLuma(b.bytes.data(), b.stride, b.width, b.height);
    }
    std::vector<int> frames(size_t first = 0) const {
        std::vector<int> out;
        for (size_t i = first; i < window->keptCount(); ++i) {
            out.push_back(frameAt(i));
        }
        return out;
    }
    bool waitQueued(uint64_t n) const { return window->waitForQueued(n, kWaitMs); }
    // Waits until no seek is pending and the last picture queued shows
    // frame `index` (the seek's picture reaches the window a moment after
    // the seek is done). With a wrong picture this runs into its bound.
    bool shows(int index) const {
        return eventually([&] { return !player.isSeekPending() && queued() > 0 && frameAt(queued() - 1) == index; },
                          kWaitMs);
    }
    // Nothing more reaches the window for a while.
    bool stays() const { return !window->waitForQueued(queued() + 1, 100); }
    // After a pause: the pictures already on their way (one staged in the
    // renderer, one in the render thread's hands) may still arrive; returns
    // how many came before the window stayed quiet.
    int settle() const {
        const uint64_t atPause = queued();
        for (int i = 0; i < 10 && !stays(); ++i) {
        }
        return static_cast<int>(queued() - atPause);
    }
    // The index of the frame whose display span holds position `ms`.
    int expectedFrame(int ms) const {
        Ffprobe probe(fixture(name));
        const double videoStart = probe.streamNumber(0, "start_time") * 1000;
        const std::string rate = probe.stream(0, "r_frame_rate");
        const double fps = std::stod(rate) / std::stod(rate.substr(rate.find('/') + 1));
        const double k = std::floor((player.getStartTime() + ms - videoStart) * fps / 1000 + 1e-6);
        return std::max(0, static_cast<int>(k));
    }

    std::string name;
    std::shared_ptr<MemoryNativeWindow> window;
    KavraMediaPlayer player;
    Events* events = nullptr;
    Sink* sink = nullptr;
    bool prepared = false;
};

// Playing to the end presents every frame once, in order, and completes
// once; prepare after stop plays again from the start.
class PlayToEnd : public ::testing::TestWithParam<const char*> {};

TEST_P(PlayToEnd, EveryFrameOnceInOrderAndAgainAfterStop) {
    Session s(GetParam(), 1.0, true);
    ASSERT_TRUE(s.prepared);
    std::vector<int> all(60);
    std::iota(all.begin(), all.end(), 0);
    for (int pass = 1; pass <= 2; ++pass) {
        const size_t first = s.window->keptCount();
        s.player.start();
        ASSERT_TRUE(s.events->waitFor(P::MEDIA_PLAYBACK_COMPLETE, pass));
        EXPECT_FALSE(s.window->waitForQueued(first + 61, 100));
        EXPECT_EQ(s.frames(first), all) << ::testing::PrintToString(s.frames(first));
        EXPECT_EQ(s.player.getStatus(), P::MEDIA_PLAYER_PLAYBACK_COMPLETE);
        s.player.stop();
        ASSERT_EQ(s.player.prepare(), 0);
    }
    EXPECT_EQ(s.events->count(P::MEDIA_PREPARED), 3);
    EXPECT_EQ(s.events->count(P::MEDIA_PLAYBACK_COMPLETE), 2);
}

INSTANTIATE_TEST_SUITE_P(Player, PlayToEnd, ::testing::Values("short_h264_aac.mp4", "short_video_only.mp4"),
                         FixtureName());

TEST(KavraMediaPlayer, LoopingTwicePlaysThreePassesAndCompletesOnce) {
    Session s("short_h264_aac.mp4", 4.0, true);
    ASSERT_TRUE(s.prepared);
    s.player.setLooping(2);
    s.player.start();
    ASSERT_TRUE(s.events->waitFor(P::MEDIA_PLAYBACK_COMPLETE, 1));
    EXPECT_FALSE(s.window->waitForQueued(181, 100));
    std::vector<int> passes(180);
    for (int i = 0; i < 180; ++i) {
        passes[i] = i % 60;
    }
    EXPECT_EQ(s.frames(), passes) << ::testing::PrintToString(s.frames());
    EXPECT_EQ(s.events->count(P::MEDIA_PLAYBACK_COMPLETE), 1);
}

TEST(KavraMediaPlayer, PauseHoldsThePictureAndResumeGoesOnFromIt) {
    Session s("short_h264_aac.mp4", 1.0, true);
    ASSERT_TRUE(s.prepared);
    s.player.start();
    ASSERT_TRUE(s.waitQueued(10));
    s.player.pause();
    EXPECT_FALSE(s.player.isPlaying());
    EXPECT_LE(s.settle(), 2);
    const uint64_t held = s.queued();
    const int position = s.player.getCurrentPosition();
    EXPECT_FALSE(s.window->waitForQueued(held + 1, 300));
    EXPECT_EQ(s.player.getCurrentPosition(), position);
    const int last = s.frameAt(held - 1);
    s.player.resume();
    ASSERT_TRUE(s.waitQueued(held + 1));
    EXPECT_EQ(s.frameAt(held), last + 1);
}

// Seeks land on the frame whose span holds the target, on each codec and
// container, whichever way the target is reached.
enum class Move { Forward, FarForward, Backward, Paused, TwoQuick };
struct SeekCase {
    const char* file;
    Move move;
};

class Seek : public ::testing::TestWithParam<SeekCase> {};

TEST_P(Seek, ShowsTheFrameAtTheTarget) {
    const SeekCase c = GetParam();
    LogCapture log;  // outlives the player's threads
    Session s(c.file, 1.0, true);
    ASSERT_TRUE(s.prepared);
    s.player.start();
    ASSERT_TRUE(s.waitQueued(10));
    const bool paused = c.move == Move::Paused || c.move == Move::TwoQuick;
    if (paused) {
        s.player.pause();
        EXPECT_LE(s.settle(), 2);
    }
    // Frame 10 or so is shown: 1200 ms lies within a second of the frame in
    // hand, 5500 ms beyond it, 100 ms behind it. At 25 frames a second,
    // 1200 ms is where frame 30 starts and frame 29 ends. Two quick requests
    // replace a target with an earlier one that forward decoding may
    // already have passed over.
    const bool twoQuick = c.move == Move::TwoQuick;
    const int target = c.move == Move::Forward || twoQuick ? 1200 : c.move == Move::Backward ? 100 : 5500;
    log.clear();
    const uint64_t before = s.queued();
    if (twoQuick) {
        s.player.seekTo(1300);
    }
    s.player.seekTo(target);
    const uint64_t called = s.queued();
    const int expected = s.expectedFrame(target);
    if (paused) {
        // The last picture is the target's, and it stays.
        EXPECT_TRUE(s.shows(expected)) << s.frameAt(s.queued() - 1);
        EXPECT_TRUE(s.stays());
        EXPECT_EQ(s.frameAt(s.queued() - 1), expected);
        EXPECT_EQ(s.player.getStatus(), P::MEDIA_PLAYER_PAUSED);
        return;
    }
    ASSERT_TRUE(eventually([&] { return !s.player.isSeekPending(); }, kWaitMs));
    const int seeks = log.count("KavraMediaDecoder", "seekStart");
    // Pictures already on their way when seekTo returned (at most one
    // staged in the renderer and one in the render thread's hands) may be
    // shown first; then the target, then playback goes on from it.
    ASSERT_TRUE(s.waitQueued(called + 4)) << ::testing::PrintToString(s.frames(before));
    const std::vector<int> after = s.frames(before);
    const size_t at = std::find(after.begin(), after.end(), expected) - after.begin();
    ASSERT_LE(at, called - before + 2) << ::testing::PrintToString(after);
    for (size_t i = 0; i < at; ++i) {
        EXPECT_EQ(after[i], s.frameAt(before - 1) + 1 + static_cast<int>(i)) << "not playback's own: "
                                                                      << ::testing::PrintToString(after);
    }
    EXPECT_GT(after[at + 1], expected) << ::testing::PrintToString(after);
    if (c.move == Move::Forward) {
        EXPECT_EQ(seeks, 0) << "decoded forward without repositioning";
    } else {
        EXPECT_GE(seeks, 1);
    }
}

std::vector<SeekCase> seekCases() {
    std::vector<SeekCase> cases;
    for (const char* file : {"h264_aac.mp4", "hevc.mp4", "mpeg4.mp4", "late_start.ts"}) {
        for (Move m : {Move::Forward, Move::FarForward, Move::Backward, Move::Paused, Move::TwoQuick}) {
            cases.push_back({file, m});
        }
    }
    cases.push_back({"short_25fps.mp4", Move::Forward});
    return cases;
}

std::string seekName(const ::testing::TestParamInfo<SeekCase>& info) {
    static const char* const moves[] = {"Forward", "FarForward", "Backward", "Paused", "TwoQuick"};
    return testName(info.param.file) + "_" + moves[static_cast<int>(info.param.move)];
}

INSTANTIATE_TEST_SUITE_P(Player, Seek, ::testing::ValuesIn(seekCases()), seekName);

TEST(KavraMediaPlayer, SeekAfterCompletionPausesAndSeekPastTheEndCompletes) {
    Session s("short_h264_aac.mp4", 4.0);
    ASSERT_TRUE(s.prepared);
    s.player.start();
    ASSERT_TRUE(s.events->waitFor(P::MEDIA_PLAYBACK_COMPLETE, 1));
    s.player.seekTo(1000);
    EXPECT_TRUE(s.shows(30));
    EXPECT_EQ(s.player.getStatus(), P::MEDIA_PLAYER_PAUSED);
    // Past the last frame: the clock shows the target, playback completes.
    s.player.seekTo(s.player.getDuration());
    ASSERT_TRUE(eventually([&] { return !s.player.isSeekPending(); }, kWaitMs));
    EXPECT_EQ(s.player.getCurrentPosition(), s.player.getDuration());
    s.player.start();
    ASSERT_TRUE(s.events->waitFor(P::MEDIA_PLAYBACK_COMPLETE, 2));
    // start() after completion replays from the first frame.
    const uint64_t before = s.queued();
    s.player.start();
    ASSERT_TRUE(s.waitQueued(before + 1));
    EXPECT_EQ(s.frameAt(before), 0);
}

// After a seek the first audio heard starts where the first picture shown
// starts, within one audio frame: each second of h264_aac.mp4 begins with a
// 1 kHz burst, whose place in the PCM after the seek tells where that PCM
// begins. Both a forward decode (from prepared) and a repositioning seek.
TEST(KavraMediaPlayer, AudioAfterASeekStartsWithThePicture) {
    Session s("h264_aac.mp4");
    ASSERT_TRUE(s.prepared);
    for (int target : {950, 4950}) {
        s.player.pause();
        const int shown = s.expectedFrame(target);
        s.player.seekTo(target);
        ASSERT_TRUE(s.shows(shown)) << s.frameAt(s.queued() - 1);
        const size_t mark = s.sink->size();
        s.player.start();
        ASSERT_TRUE(s.sink->waitFor(mark + kRate / 5));
        std::vector<int16_t> pcm = s.sink->from(mark, kRate / 5);
        const auto onset = std::find_if(pcm.begin(), pcm.end(), [](int16_t v) { return std::abs(v) > 8000; });
        ASSERT_NE(onset, pcm.end());
        const double burstMs = (target / 1000 + 1) * 1000.0;
        const double audioStartMs = burstMs - (onset - pcm.begin()) * 1000.0 / kRate;
        const double pictureStartMs = shown * 1000.0 / 30;
        EXPECT_GE(audioStartMs - pictureStartMs, -1.0) << target;
        EXPECT_LE(audioStartMs - pictureStartMs, 1024 * 1000.0 / kRate + 1) << target;
    }
}

// two_audio.mp4: audio track 0 is a 440 Hz tone, track 1 an 880 Hz tone.
TEST(KavraMediaPlayer, AudioTrackSwitchChangesTheToneWithoutRestartingVideo) {
    Session s("two_audio.mp4");
    ASSERT_TRUE(s.prepared);
    EXPECT_EQ(s.player.getAudioTrackCount(), 2);
    s.player.start();
    ASSERT_TRUE(s.sink->waitFor(kRate / 2));
    ASSERT_TRUE(s.waitQueued(15));
    EXPECT_NEAR(frequency(s.sink->from(kRate / 4, kRate / 4)), 440, 20);
    const uint64_t before = s.queued();
    const int lastShown = s.frameAt(before - 1);
    ASSERT_EQ(s.player.setAudioTrack(1), 0);
    const size_t mark = s.sink->size();
    EXPECT_EQ(s.player.getAudioTrackIndex(), 2);
    ASSERT_TRUE(s.sink->waitFor(mark + kRate / 2));
    EXPECT_NEAR(frequency(s.sink->from(mark, kRate / 2)), 880, 20);
    ASSERT_TRUE(s.waitQueued(before + 1));
    EXPECT_GE(s.frameAt(before), lastShown);
    EXPECT_EQ(s.player.setAudioTrack(2), -1);
}

TEST(KavraMediaPlayer, AudioOnlyFilePlaysEverySampleToTheEnd) {
    Session s("audio_only.m4a", 8.0);
    ASSERT_TRUE(s.prepared);
    s.player.start();
    ASSERT_TRUE(s.events->waitFor(P::MEDIA_PLAYBACK_COMPLETE, 1));
    EXPECT_NEAR(static_cast<double>(s.sink->size()), 10.0 * kRate, 2048);
    EXPECT_EQ(s.events->all().front(), (Event{P::MEDIA_SET_VIDEO_SIZE, 0, 0}));
    EXPECT_EQ(s.queued(), 0u);
}

TEST(KavraMediaPlayer, RotationSwapsTheSizeAndASecondSourceIsAnError) {
    Session s("h264_aac_rot90.mp4");
    ASSERT_TRUE(s.prepared);
    EXPECT_EQ(s.events->all().front(), (Event{P::MEDIA_SET_VIDEO_SIZE, 240, 320}));
    EXPECT_EQ(s.player.getVideoWidth(), 240);
    EXPECT_EQ(s.player.getVideoHeight(), 320);
    EXPECT_EQ(s.player.getRotation(), 90);
    EXPECT_EQ(s.player.setDataSource(fixture("h264_aac.mp4").c_str()), -1);
    EXPECT_EQ(s.player.getStatus(), P::MEDIA_PLAYER_STATE_ERROR);
    EXPECT_EQ(s.events->all().back(), (Event{P::MEDIA_ERROR, 0, 0}));
}

// Misuse returns promptly with every thread joined (a hang fails the run).
TEST(KavraMediaPlayer, StopAndReleaseAtAnyMomentReturn) {
    enum { kAfterPrepare, kWhilePaused, kDuringSeek };
    for (int when : {kAfterPrepare, kWhilePaused, kDuringSeek}) {
        Session s("h264_aac.mp4");
        if (when != kAfterPrepare) {
            s.player.start();
            ASSERT_TRUE(s.waitQueued(3));
        }
        when == kWhilePaused ? s.player.pause() : s.player.seekTo(8000);
        s.player.stop();
        if (when == kDuringSeek) {
            EXPECT_EQ(s.player.prepare(), 0);  // and the session stops it again
            continue;
        }
        s.player.release();
        s.player.release();
    }
}

TEST(KavraMediaPlayer, SeekStormsEndOnTheLastTarget) {
    Session s("h264_aac.mp4");
    ASSERT_TRUE(s.prepared);
    s.player.start();
    ASSERT_TRUE(s.waitQueued(3));
    for (int i = 0; i < 200; ++i) {
        s.player.seekTo((i * 7919) % 9000);
    }
    std::thread toggler([&] {
        for (int i = 0; i < 200; ++i) {
            i % 2 ? s.player.resume() : s.player.pause();
        }
    });
    for (int i = 0; i < 200; ++i) {
        s.player.seekTo((i * 4127) % 9000);
    }
    toggler.join();
    s.player.pause();
    ASSERT_TRUE(eventually([&] { return !s.player.isSeekPending(); }, kWaitMs));
    s.player.seekTo(4321);
    EXPECT_TRUE(s.shows(s.expectedFrame(4321))) << s.frameAt(s.queued() - 1);
}

// Noise over the middle of a clip, and a clip cut at 60 %: playback goes on
// past the damage (to frame 45 of 60, to frame 150 of the 180 kept).
TEST(KavraMediaPlayer, DamagedFilesPlayOnOrEndWithAnError) {
    for (auto [name, reach] : {std::make_pair("short_damaged.mp4", 45), std::make_pair("truncated.mp4", 150)}) {
        Session s(name, 4.0);
        ASSERT_TRUE(s.prepared) << name;
        s.player.start();
        EXPECT_TRUE(eventually([&] {
            return s.events->count(P::MEDIA_PLAYBACK_COMPLETE) + s.events->count(P::MEDIA_ERROR) > 0;
        }, kWaitMs)) << name;
        std::vector<int> f = s.frames();
        EXPECT_GE(f.empty() ? -1 : *std::max_element(f.begin(), f.end()), reach) << name;
    }
}

}  // namespace
}  // namespace kavra::test
