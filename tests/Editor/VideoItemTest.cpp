// The editor item: what it reports, thumbnail strips (turned like the clip),
// key-frame grabs, snapshots, cancel and release from other threads, bad
// files.
// Every check reads the frame index drawn into the fixture pictures.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "editor/VideoItem.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"
#include "support/FrameIndex.h"
#include "support/Process.h"
#include "support/ScratchDir.h"

namespace kavra::test {
namespace {

using namespace std::chrono_literals;

// Every fixture runs at 30 fps with a key frame every 30 frames; frame n is
// presented at firstFrameMs + n x 1000 / 30.
constexpr int kFixtureFrames = 300;

double firstFrameMs(const std::string& name) {
    return Ffprobe(fixture(name), "-select_streams v:0").streamNumber(0, "start_time", 0.0) * 1000.0;
}

// The key frame at or before `targetMs` (frame 0 for earlier targets).
int keyFrameAtOrBefore(double targetMs, double firstMs) {
    const double frames = (targetMs - firstMs) * 30.0 / 1000.0;
    return frames < 0 ? 0 : std::min(static_cast<int>(std::floor(frames + 1e-6)), kFixtureFrames - 1) / 30 * 30;
}

// The first frame presented at or after `targetMs` (the last frame when the
// clip ends before it).
int frameAtOrAfter(double targetMs, double firstMs) {
    const double frames = (targetMs - firstMs) * 30.0 / 1000.0;
    return frames <= 0 ? 0 : std::min(static_cast<int>(std::ceil(frames - 1e-6)), kFixtureFrames - 1);
}

std::unique_ptr<VideoItem> openItem(const std::string& name, bool singleThread = false) {
    auto item = std::make_unique<VideoItem>();
    EXPECT_EQ(item->setSource(fixture(name).c_str(), singleThread), 0) << name;
    return item;
}

int rgbaBytes(int width, int height) { return width * height * 4; }

// The frame index shown by RGBA pixels (one int each) in display orientation.
int frameOf(const std::vector<int>& pixels, int width, int height, int rotation = 0) {
    return frameIndexFromRgba(reinterpret_cast<const uint8_t*>(pixels.data()), width * 4, width, height, rotation);
}

// Hands each thumbnail to a function.
class FunctionSink : public ThumbnailSink {
public:
    explicit FunctionSink(std::function<bool(int, int)> fn) : mFn(std::move(fn)) {}
    bool onThumbnail(int index, int ptsMs) override { return mFn(index, ptsMs); }

private:
    std::function<bool(int, int)> mFn;
};

// The frame each thumbnail of a strip showed, read in display orientation;
// the callbacks' (index, pts) into `calls` when given. A size below one asks
// for the coded size, 320x240 for the unturned fixtures.
std::vector<int> stripFrames(VideoItem& item, int startMs, int endMs, int count, int width = 160, int height = 120,
                             int rotation = 0, std::vector<std::pair<int, int>>* calls = nullptr) {
    item.setItemParameters(startMs, endMs, count, width, height, true);
    const int w = width < 1 ? 320 : width;
    const int h = height < 1 ? 240 : height;
    std::vector<int> dst(static_cast<size_t>(w) * h);
    std::vector<int> frames;
    FunctionSink sink([&](int index, int ptsMs) {
        frames.push_back(frameOf(dst, w, h, rotation));
        if (calls != nullptr) {
            calls->emplace_back(index, ptsMs);
        }
        return true;
    });
    EXPECT_EQ(item.getThumbnailList(dst.data(), rgbaBytes(w, h), sink), 0);
    return frames;
}

// ---------------------------------------------------------------------------
// What the item reports, and thumbnail strips

struct Clip {
    const char* name;
    int width;  // display orientation
    int height;
    int rotation;
    int mimeId;
};

// The strips run on every clip but the last, which only checks what the item
// reports.
const Clip kClips[] = {
    {"h264_aac.mp4", 320, 240, 0, 28},   {"h264_aac_rot90.mp4", 240, 320, 90, 28},
    {"h264_aac_rot180.mp4", 320, 240, 180, 28}, {"h264_aac_rot270.mp4", 240, 320, 270, 28},
    {"mpeg4.mp4", 320, 240, 0, 13},      {"mpeg4_bframes.mp4", 320, 240, 0, 13},
    {"hevc.mp4", 320, 240, 0, 0x48323635}, {"vp9.webm", 320, 240, 0, 169},
    {"odd_size.mp4", 321, 241, 0, 13},   {"late_start.ts", 320, 240, 0, 28},
    // A "rotate" tag that is not a number reads as no rotation.
    {"bad_rotate.mkv", 320, 240, 0, 28},
};

class VideoItemFacts : public ::testing::TestWithParam<Clip> {};

TEST_P(VideoItemFacts, ReportsDisplaySizeRotationRateDurationAndCodec) {
    const Clip& c = GetParam();
    auto item = openItem(c.name);
    EXPECT_EQ(item->getWidth(), c.width);
    EXPECT_EQ(item->getHeight(), c.height);
    EXPECT_EQ(item->getRotation(), c.rotation);
    EXPECT_EQ(item->getVideoMimeID(), c.mimeId);
    EXPECT_EQ(item->getFrameRate(), 30);
    Ffprobe probe(fixture(c.name));
    EXPECT_EQ(item->getDuration(), static_cast<int>(std::llround(probe.number("format.duration") * 1000000) / 1000));
}

INSTANTIATE_TEST_SUITE_P(Fixtures, VideoItemFacts, ::testing::ValuesIn(kClips), FixtureName());

struct Strip {
    const char* label;
    int startMs;  // relative to the first frame
    int endMs;
    int count;
};

const Strip kStrips[] = {
    {"Even", 250, 9750, 7},      // 250, 1833, 3416, 4999, 6582, 8165, 9748 ms
    {"Reversed", 9750, 250, 7},  // the same targets from the end
    {"Single", 4999, 4999, 1},
    {"OnKeyFrames", 0, 9000, 10},  // every target exactly on a key frame
};

class VideoItemStrip : public ::testing::TestWithParam<std::tuple<Clip, Strip, bool>> {};

// Thumbnails are half the display size (rounded up), turned like the clip.
TEST_P(VideoItemStrip, ThumbnailIShowsTheKeyFrameAtOrBeforeItsTarget) {
    const auto& [clip, strip, singleThread] = GetParam();
    const int width = (clip.width + 1) / 2;
    const int height = (clip.height + 1) / 2;
    const double first = firstFrameMs(clip.name);
    const int start = static_cast<int>(first) + strip.startMs;
    const int end = static_cast<int>(first) + strip.endMs;
    std::vector<std::pair<int, int>> calls;  // index, pts
    const std::vector<int> shown =
        stripFrames(*openItem(clip.name, singleThread), start, end, strip.count, width, height, clip.rotation, &calls);
    ASSERT_EQ(shown.size(), static_cast<size_t>(strip.count));
    ASSERT_EQ(calls.size(), shown.size());
    const int interval = strip.count == 1 ? 0 : (end - start) / (strip.count - 1);
    for (int i = 0; i < strip.count; ++i) {
        SCOPED_TRACE("thumbnail " + std::to_string(i));
        const int target = start + i * interval;
        const int expected = keyFrameAtOrBefore(target, first);
        EXPECT_EQ(calls[i].first, i);
        EXPECT_NEAR(calls[i].second, first + expected * 1000.0 / 30, 1.0);
        EXPECT_EQ(shown[i], expected) << "target " << target << " ms";
    }
}

INSTANTIATE_TEST_SUITE_P(Fixtures, VideoItemStrip,
                         ::testing::Combine(::testing::ValuesIn(std::begin(kClips), std::end(kClips) - 1),
                                            ::testing::ValuesIn(kStrips), ::testing::Bool()),
                         [](const auto& info) {
                             return testName(std::string(std::get<0>(info.param).name) + "_" +
                                             std::get<1>(info.param).label +
                                             (std::get<2>(info.param) ? "_SingleThread" : "_Threads"));
                         });

TEST(VideoItemStripEdges, TargetsOutsideTheClipNoThumbnailsAndNoSize) {
    // The transport stream starts near 1.4 s; a strip from 0 still shows
    // pictures, the early targets the first key frame.
    const double first = firstFrameMs("late_start.ts");
    ASSERT_GT(first, 1000);
    std::vector<int> expected;
    for (int i = 0; i < 4; ++i) {
        expected.push_back(keyFrameAtOrBefore(i * 2000, first));
    }
    EXPECT_EQ(stripFrames(*openItem("late_start.ts"), 0, 6000, 4), expected);
    // Targets far past the end each seek to the last key frame.
    EXPECT_EQ(stripFrames(*openItem("mpeg4.mp4"), 9500, 30000, 4), std::vector<int>(4, 270));
    EXPECT_TRUE(stripFrames(*openItem("h264_aac.mp4"), 0, 9000, 0).empty());

    // A size below one falls back to the coded size.
    EXPECT_EQ(stripFrames(*openItem("h264_aac.mp4"), 3000, 3000, 1, 0, 0), std::vector<int>{90});
}

TEST(VideoItemStripEdges, DestinationsOfTheWrongSizeAreRefused) {
    auto item = openItem("h264_aac_rot90.mp4");
    item->setItemParameters(0, 9000, 4, 90, 160, true);
    std::vector<int> dst(90 * 160 - 1);
    FunctionSink sink([](int, int) { return true; });
    EXPECT_EQ(item->getThumbnailList(dst.data(), static_cast<int>(dst.size() * 4), sink), -1);
    for (int delta : {-1, 1}) {
        std::vector<int> grab(90 * 160 + delta);
        EXPECT_EQ(item->getKeyFrameAt(grab.data(), static_cast<int>(grab.size() * 4), 90, 160, 1000), -1);
    }
}

// ---------------------------------------------------------------------------
// Key-frame grabs

class VideoItemKeyFrame : public ::testing::TestWithParam<std::pair<int, int>> {};  // time (ms), key frame

TEST_P(VideoItemKeyFrame, GrabsTheKeyFrameAtOrBeforeTheTimeInDisplayOrientation) {
    const auto& [timeMs, expected] = GetParam();
    for (const auto& [name, width, height, rotation] :
         {std::tuple("h264_aac.mp4", 200, 150, 0), std::tuple("h264_aac_rot90.mp4", 150, 200, 90)}) {
        SCOPED_TRACE(name);
        auto item = openItem(name);
        std::vector<int> dst(width * height);
        ASSERT_EQ(item->getKeyFrameAt(dst.data(), rgbaBytes(width, height), width, height, timeMs), 0);
        EXPECT_EQ(frameOf(dst, width, height, rotation), expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Times, VideoItemKeyFrame,
                         ::testing::Values(std::pair(0, 0), std::pair(4500, 120), std::pair(9999, 270),
                                           std::pair(10000, 270),  // the duration itself
                                           std::pair(10001, 0)),   // past the duration: the start
                         [](const auto& info) { return "At" + std::to_string(info.param.first); });

// MPEG-TS seeks by estimate and can land after the key frame at or before
// the time. late_start.ts has a key frame every second from 1466.7 ms on.
TEST(VideoItemKeyFrameEdges, AnEstimatedSeekStillGivesTheKeyFrameAtOrBeforeTheTime) {
    auto item = openItem("late_start.ts");
    std::vector<int> dst(80 * 60);
    for (auto [ms, expected] : {std::pair(1967, 0), std::pair(3466, 30), std::pair(3467, 60), std::pair(3966, 60)}) {
        ASSERT_EQ(item->getKeyFrameAt(dst.data(), rgbaBytes(80, 60), 80, 60, ms), 0) << ms;
        EXPECT_EQ(frameOf(dst, 80, 60, 0), expected) << ms;
    }
}

TEST(VideoItemKeyFrameEdges, PixelsAreOpaqueRgbaInMemoryOrder) {
    VideoItem item;
    ASSERT_EQ(item.setSource(fixture("red_64x48.mp4").c_str(), true), 0);
    std::vector<int> dst(32 * 24);
    ASSERT_EQ(item.getKeyFrameAt(dst.data(), rgbaBytes(32, 24), 32, 24, 0), 0);
    // Pure red: R in the lowest byte of each int, alpha in the highest.
    const uint32_t pixel = static_cast<uint32_t>(dst[12 * 32 + 16]);
    EXPECT_EQ(pixel >> 24, 0xFFu) << std::hex << pixel;
    EXPECT_GT(pixel & 0xFF, 230u) << std::hex << pixel;
    EXPECT_LT((pixel >> 8) & 0xFF, 25u) << std::hex << pixel;
    EXPECT_LT((pixel >> 16) & 0xFF, 25u) << std::hex << pixel;
}

// ---------------------------------------------------------------------------
// Snapshots

class VideoItemSnapshot : public ::testing::TestWithParam<std::tuple<const char*, int>> {};

TEST_P(VideoItemSnapshot, WritesTheFirstFrameAtOrAfterTheTimeAtTheCodedSize) {
    const auto& [name, relativeMs] = GetParam();
    Ffprobe video(fixture(name), "-select_streams v:0");
    const double first = video.streamNumber(0, "start_time", 0.0) * 1000.0;
    const int t = static_cast<int>(first) + relativeMs;
    ScratchDir dir;
    const std::string shot = dir.file("shot.jpg");
    ASSERT_EQ(openItem(name)->snapShot(shot.c_str(), t), 0);
    RgbaImage image = decodeImage(shot);
    EXPECT_EQ(image.width, video.streamNumber(0, "width"));
    ASSERT_EQ(image.height, video.streamNumber(0, "height"));
    EXPECT_EQ(frameIndexFromRgba(image.at(0, 0), image.width * 4, image.width, image.height), frameAtOrAfter(t, first))
        << "time " << t;
}

// Frame n is shown from n x 33.3 ms: 1483 falls between frames, 0 and 5000
// exactly on one (frame 150, which must be chosen, not the next); 9950 and
// 20000 are past the last frame's start, which gives the last picture.
INSTANTIATE_TEST_SUITE_P(
    Fixtures, VideoItemSnapshot,
    ::testing::Combine(::testing::Values("h264_aac.mp4", "h264_aac_rot90.mp4", "hevc.mp4", "mpeg4_bframes.mp4",
                                         "vp9.webm", "odd_size.mp4"),
                       ::testing::Values(0, 1483, 5000, 9950, 20000)),
    [](const auto& info) {
        return testName(std::string(std::get<0>(info.param)) + "_" + std::to_string(std::get<1>(info.param)));
    });

// ---------------------------------------------------------------------------
// Cancel and release from other threads

TEST(VideoItemThreads, CancelFromAnotherThreadStopsTheStripWithNoCallbackAfterIt) {
    auto item = openItem("h264_aac.mp4");
    item->setItemParameters(0, 9000, 10, 160, 120, true);
    std::vector<int> dst(160 * 120);
    std::vector<int> calls;
    FunctionSink sink([&](int index, int) {
        calls.push_back(index);
        if (index == 1) {
            auto cancelled = std::async(std::launch::async, [&] { item->cancel(); });
            // cancel returns once the reader has stopped, while the strip is
            // still inside this callback.
            EXPECT_EQ(cancelled.wait_for(10s), std::future_status::ready);
        }
        return true;
    });
    EXPECT_EQ(item->getThumbnailList(dst.data(), rgbaBytes(160, 120), sink), 0);
    EXPECT_EQ(calls, (std::vector<int>{0, 1}));
    EXPECT_EQ(item->getPacketFrame(2), nullptr) << "a cancelled item hands out nothing";
}

// Key-frame grabs during a strip, from inside its callback and from another
// thread at the same time, must neither disturb the strip nor each other.
// Another strip, a new source and a snapshot are turned away meanwhile, and
// the strip's parameters stay as they were.
TEST(VideoItemThreads, KeyFrameGrabsDuringAStripLeaveItIntactOtherCallsAreTurnedAway) {
    auto item = openItem("h264_aac.mp4");
    item->setItemParameters(0, 9000, 10, 160, 120, true);
    std::vector<int> dst(160 * 120);
    auto grab = [&](std::vector<int>& pixels, int timeMs) {
        int ret = item->getKeyFrameAt(pixels.data(), rgbaBytes(160, 120), 160, 120, timeMs);
        return ret != 0 ? -1 : frameOf(pixels, 160, 120);
    };
    std::atomic<bool> stripDone{false};
    std::atomic<int> otherGrabs{0};
    std::atomic<int> otherWrong{0};
    std::thread other([&] {
        std::vector<int> pixels(160 * 120);
        while (!stripDone) {
            otherWrong += grab(pixels, 7500) == 210 ? 0 : 1;
            ++otherGrabs;
        }
    });
    std::vector<int> shown;
    std::vector<int> grabbed;
    FunctionSink sink([&](int index, int) {
        shown.push_back(frameOf(dst, 160, 120));
        if (index == 0) {
            std::thread([&] {
                std::vector<int> pixels(160 * 120);
                FunctionSink none([](int, int) { return true; });
                EXPECT_EQ(item->getThumbnailList(pixels.data(), rgbaBytes(160, 120), none), -1);
                EXPECT_EQ(item->setSource(fixture("mpeg4.mp4").c_str(), false), -1);
                item->setItemParameters(0, 1000, 2, 160, 120, true);
                EXPECT_EQ(item->snapShot("/dev/null", 0), -1);
            }).join();
            // The other thread grabs while the strip runs.
            for (int i = 0; i < 2000 && otherGrabs < 1; ++i) {
                std::this_thread::sleep_for(5ms);
            }
        }
        // From inside the callback, far from where the strip reads.
        std::vector<int> pixels(160 * 120);
        grabbed.push_back(grab(pixels, 9000 - index * 1000));
        return true;
    });
    EXPECT_EQ(item->getThumbnailList(dst.data(), rgbaBytes(160, 120), sink), 0);
    stripDone = true;
    other.join();
    EXPECT_EQ(shown, (std::vector<int>{0, 30, 60, 90, 120, 150, 180, 210, 240, 270}));
    EXPECT_EQ(grabbed, (std::vector<int>{270, 240, 210, 180, 150, 120, 90, 60, 30, 0}));
    EXPECT_GE(otherGrabs, 1);
    EXPECT_EQ(otherWrong, 0);
}

TEST(VideoItemThreads, ReleaseDuringAStripReturnsAfterTheStripAndOnlyOnce) {
    auto item = openItem("h264_aac.mp4");
    item->setItemParameters(0, 9000, 10, 160, 120, true);
    std::vector<int> dst(160 * 120);
    std::atomic<bool> releaseReturned{false};
    std::future<bool> released;
    int calls = 0;
    int callsAfterRelease = 0;
    FunctionSink sink([&](int index, int) {
        ++calls;
        callsAfterRelease += releaseReturned ? 1 : 0;
        if (index == 0) {
            released = std::async(std::launch::async, [&] {
                bool r = item->release();
                releaseReturned = true;
                return r;
            });
            // A release that did not wait for the strip would come back
            // within this time.
            EXPECT_EQ(released.wait_for(300ms), std::future_status::timeout);
        }
        return true;
    });
    EXPECT_EQ(item->getThumbnailList(dst.data(), rgbaBytes(160, 120), sink), 0);
    ASSERT_TRUE(released.valid());
    ASSERT_EQ(released.wait_for(10s), std::future_status::ready);
    EXPECT_TRUE(released.get());
    EXPECT_EQ(calls, 10) << "release lets a running strip finish";
    EXPECT_EQ(callsAfterRelease, 0);
    EXPECT_FALSE(item->release()) << "the second release";
}

// ---------------------------------------------------------------------------
// Bad files

TEST(VideoItemBadFiles, FilesThatDoNotOpenFailEveryJobCleanly) {
    for (const char* name : {"truncated_nomoov.mp4", "random.bin", "audio_only.m4a"}) {
        SCOPED_TRACE(name);
        VideoItem item;
        EXPECT_LT(item.setSource(fixture(name).c_str(), false), 0);
        EXPECT_EQ(item.getWidth(), 0);
        std::vector<int> dst(160 * 120);
        EXPECT_LT(item.getKeyFrameAt(dst.data(), rgbaBytes(160, 120), 160, 120, 1000), 0);
        item.setItemParameters(0, 9000, 4, 160, 120, true);
        FunctionSink sink([](int, int) {
            ADD_FAILURE() << "no thumbnail can come from this file";
            return true;
        });
        EXPECT_EQ(item.getThumbnailList(dst.data(), rgbaBytes(160, 120), sink), 0);
        ScratchDir dir;
        EXPECT_EQ(item.snapShot(dir.file("x.jpg").c_str(), 1000), -1);
    }
}

TEST(VideoItemBadFiles, ATruncatedFileServesWhatItHolds) {
    // The header survives, the media data stops after about 60 % of the bytes.
    std::vector<int> frames = stripFrames(*openItem("truncated.mp4"), 0, 9000, 4);
    ASSERT_GE(frames.size(), 2u);
    EXPECT_EQ(frames[0], 0);
    EXPECT_EQ(frames[1], 90);

    auto grabber = openItem("truncated.mp4");
    std::vector<int> dst(160 * 120);
    EXPECT_EQ(grabber->getKeyFrameAt(dst.data(), rgbaBytes(160, 120), 160, 120, 3000), 0);
    EXPECT_EQ(frameOf(dst, 160, 120), 90);
    EXPECT_LT(grabber->getKeyFrameAt(dst.data(), rgbaBytes(160, 120), 160, 120, 9500), 0);

    // A snapshot past the data shows the last picture the file holds.
    CommandResult frameTimes = runCommand("ffprobe -v quiet -select_streams v:0 -show_entries frame=pts_time -of csv=p=0 " +
                                          shellQuote(fixture("truncated.mp4")) + " | tail -n 1");
    ASSERT_EQ(frameTimes.status, 0);
    ScratchDir dir;
    ASSERT_EQ(openItem("truncated.mp4")->snapShot(dir.file("x.jpg").c_str(), 9500), 0);
    RgbaImage shot = decodeImage(dir.file("x.jpg"));
    ASSERT_GT(shot.width, 0);
    EXPECT_EQ(frameIndexFromRgba(shot.at(0, 0), shot.width * 4, shot.width, shot.height),
              static_cast<int>(std::lround(std::stod(frameTimes.output) * 30)));
}

}  // namespace
}  // namespace kavra::test
