// The editor item: thumbnail strips, key-frame grabs, snapshots, pixel
// layout and turns, cancel and release from other threads, bad files.
// Every check reads the frame index drawn into the fixture pictures.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "EditorTestSupport.h"
#include "editor/VideoItem.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

using namespace std::chrono_literals;

int rgbaBytes(int width, int height) { return width * height * 4; }

// The frame indices a strip showed, on a 160x120 thumbnail.
std::vector<int> stripFrames(VideoItem& item, int startMs, int endMs, int count) {
    item.setItemParameters(startMs, endMs, count, 160, 120, true);
    std::vector<int> dst(160 * 120);
    RecordingSink sink(&dst, 160, 120, 0);
    EXPECT_EQ(item.getThumbnailList(dst.data(), rgbaBytes(160, 120), sink), 0);
    std::vector<int> frames;
    for (const auto& c : sink.calls()) {
        frames.push_back(c.frame);
    }
    return frames;
}

// ---------------------------------------------------------------------------
// Thumbnail strips

struct Strip {
    const char* label;
    int startMs;  // relative to the first frame
    int endMs;
    int count;
};

struct StripFixture {
    const char* name;
    int width;  // requested, display orientation
    int height;
    int rotation;
};

const Strip kStrips[] = {
    {"Even", 250, 9750, 7},      // 250, 1833, 3416, 4999, 6582, 8165, 9748 ms
    {"Reversed", 9750, 250, 7},  // the same targets from the end
    {"Single", 4999, 4999, 1},
    {"OnKeyFrames", 0, 9000, 10},  // every target exactly on a key frame
};

const StripFixture kStripFixtures[] = {
    {"h264_aac.mp4", 160, 120, 0},  {"h264_aac_rot90.mp4", 120, 160, 90}, {"mpeg4.mp4", 160, 120, 0},
    {"mpeg4_bframes.mp4", 160, 120, 0}, {"hevc.mp4", 160, 120, 0},       {"vp9.webm", 160, 120, 0},
    {"odd_size.mp4", 161, 121, 0},  {"late_start.ts", 160, 120, 0},
};

class VideoItemStrip : public ::testing::TestWithParam<std::tuple<StripFixture, Strip, bool>> {};

TEST_P(VideoItemStrip, ThumbnailIShowsTheKeyFrameAtOrBeforeItsTarget) {
    const auto& [fx, strip, singleThread] = GetParam();
    const double first = firstFrameMs(fx.name);
    const int start = static_cast<int>(first) + strip.startMs;
    const int end = static_cast<int>(first) + strip.endMs;
    auto item = openItem(fx.name, singleThread);
    item->setItemParameters(start, end, strip.count, fx.width, fx.height, true);

    std::vector<int> dst(static_cast<size_t>(fx.width) * fx.height, 0);
    RecordingSink sink(&dst, fx.width, fx.height, fx.rotation);
    ASSERT_EQ(item->getThumbnailList(dst.data(), rgbaBytes(fx.width, fx.height), sink), 0);

    auto calls = sink.calls();
    ASSERT_EQ(calls.size(), static_cast<size_t>(strip.count));
    const int interval = strip.count == 1 ? 0 : (end - start) / (strip.count - 1);
    for (int i = 0; i < strip.count; ++i) {
        SCOPED_TRACE("thumbnail " + std::to_string(i));
        const int target = start + i * interval;
        const int expected = keyFrameAtOrBefore(target, first);
        EXPECT_EQ(calls[i].index, i);
        EXPECT_EQ(calls[i].frame, expected) << "target " << target << " ms";
        EXPECT_NEAR(calls[i].ptsMs, first + expected * 1000.0 / 30, 1.0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Fixtures, VideoItemStrip,
    ::testing::Combine(::testing::ValuesIn(kStripFixtures), ::testing::ValuesIn(kStrips), ::testing::Bool()),
    [](const auto& info) {
        return testName(std::string(std::get<0>(info.param).name) + "_" + std::get<1>(info.param).label +
                        (std::get<2>(info.param) ? "_SingleThread" : "_Threads"));
    });

TEST(VideoItemStripEdges, TargetsBeforeTheFirstFrameOrPastTheEndShowTheNearestKeyFrame) {
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
}

TEST(VideoItemStripEdges, SizeBelowOneFallsBackToTheCodedSize) {
    auto full = openItem("h264_aac.mp4");
    full->setItemParameters(3000, 3000, 1, 0, 0, true);
    std::vector<int> dst(320 * 240);
    RecordingSink sink(&dst, 320, 240, 0);
    ASSERT_EQ(full->getThumbnailList(dst.data(), rgbaBytes(320, 240), sink), 0);
    ASSERT_EQ(sink.calls().size(), 1u);
    EXPECT_EQ(sink.calls()[0].frame, 90);
}

TEST(VideoItemStripEdges, ADestinationTooSmallForTheThumbnailIsRefused) {
    LogCapture log;
    auto item = openItem("h264_aac_rot90.mp4");
    item->setItemParameters(0, 9000, 4, 90, 160, true);
    std::vector<int> dst(90 * 160 - 1);
    FunctionSink sink([](int, int) { return true; });
    EXPECT_EQ(item->getThumbnailList(dst.data(), static_cast<int>(dst.size() * 4), sink), -1);
    EXPECT_TRUE(log.contains("JNI_VideoItem", "get_thumbnaillist->dstArray size 57596 is smaller than 57600"));
}

// ---------------------------------------------------------------------------
// Key-frame grabs

struct Grab {
    int timeMs;
    int expected;
};

class VideoItemKeyFrame : public ::testing::TestWithParam<Grab> {};

TEST_P(VideoItemKeyFrame, GrabsTheKeyFrameAtOrBeforeTheTimeInDisplayOrientation) {
    const Grab& g = GetParam();
    {
        auto item = openItem("h264_aac.mp4");
        std::vector<int> dst(200 * 150);
        ASSERT_EQ(item->getKeyFrameAt(dst.data(), rgbaBytes(200, 150), 200, 150, g.timeMs), 0);
        EXPECT_EQ(frameIndexFromRgba(reinterpret_cast<uint8_t*>(dst.data()), 200 * 4, 200, 150), g.expected);
    }
    {
        auto item = openItem("h264_aac_rot90.mp4");
        std::vector<int> dst(150 * 200);
        ASSERT_EQ(item->getKeyFrameAt(dst.data(), rgbaBytes(150, 200), 150, 200, g.timeMs), 0);
        EXPECT_EQ(frameIndexFromRgba(reinterpret_cast<uint8_t*>(dst.data()), 150 * 4, 150, 200, 90), g.expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Times, VideoItemKeyFrame,
                         ::testing::Values(Grab{0, 0}, Grab{4500, 120}, Grab{9999, 270},
                                           Grab{10000, 270},  // the duration itself
                                           Grab{10001, 0},    // past the duration: the start
                                           Grab{-5, 0}),
                         [](const auto& info) {
                             int t = info.param.timeMs;
                             return t < 0 ? "Minus" + std::to_string(-t) : "At" + std::to_string(t);
                         });

TEST(VideoItemKeyFrameEdges, AnArrayOneElementShortOrLongIsRefused) {
    auto item = openItem("h264_aac_rot90.mp4");
    for (int delta : {-1, 1}) {
        LogCapture log;
        std::vector<int> dst(90 * 160 + delta);
        EXPECT_EQ(item->getKeyFrameAt(dst.data(), static_cast<int>(dst.size() * 4), 90, 160, 1000), -1);
        EXPECT_TRUE(log.contains("JNI_VideoItem", "avpicture_get_size is bigger than dstArray size."));
    }
}

TEST(VideoItemKeyFrameEdges, GrabsRepeatOnOneItemBeforeAndAfterAStrip) {
    auto item = openItem("hevc.mp4");
    std::vector<int> dst(160 * 120);
    auto grab = [&](int t) {
        EXPECT_EQ(item->getKeyFrameAt(dst.data(), rgbaBytes(160, 120), 160, 120, t), 0);
        return frameIndexFromRgba(reinterpret_cast<uint8_t*>(dst.data()), 160 * 4, 160, 120);
    };
    EXPECT_EQ(grab(7200), 210);
    EXPECT_EQ(grab(1100), 30);
    item->setItemParameters(0, 9000, 4, 160, 120, true);
    RecordingSink sink(&dst, 160, 120, 0);
    ASSERT_EQ(item->getThumbnailList(dst.data(), rgbaBytes(160, 120), sink), 0);
    EXPECT_EQ(sink.calls().size(), 4u);
    EXPECT_EQ(grab(5000), 150);
    EXPECT_EQ(grab(0), 0);
}

TEST(VideoItemKeyFrameEdges, PixelsAreOpaqueRgbaInMemoryOrder) {
    TempDir dir;
    const std::string clip = dir.file("red.mp4");
    // Pure red: R in the lowest byte of each int, alpha in the highest.
    ASSERT_EQ(runCommand("ffmpeg -v error -nostdin -f lavfi -i color=c=0xFF0000:size=64x48:rate=30:duration=1 "
                         "-c:v libx264 -pix_fmt yuv420p " +
                         shellQuote(clip))
                  .status,
              0);
    auto item = std::make_unique<VideoItem>();
    ASSERT_EQ(item->setSource(clip.c_str(), true), 0);
    std::vector<int> dst(32 * 24);
    ASSERT_EQ(item->getKeyFrameAt(dst.data(), rgbaBytes(32, 24), 32, 24, 0), 0);
    uint32_t pixel = static_cast<uint32_t>(dst[12 * 32 + 16]);
    EXPECT_EQ(pixel >> 24, 0xFFu) << std::hex << pixel;
    EXPECT_GT(pixel & 0xFF, 230u) << std::hex << pixel;
    EXPECT_LT((pixel >> 8) & 0xFF, 25u) << std::hex << pixel;
    EXPECT_LT((pixel >> 16) & 0xFF, 25u) << std::hex << pixel;
}

// ---------------------------------------------------------------------------
// Snapshots

struct ShotFixture {
    const char* name;
    int codedWidth;
    int codedHeight;
};

class VideoItemSnapshot : public ::testing::TestWithParam<std::tuple<ShotFixture, int>> {};

TEST_P(VideoItemSnapshot, WritesTheFirstFrameAtOrAfterTheTimeAsACodedSizeJpeg) {
    const auto& [fx, relativeMs] = GetParam();
    const double first = firstFrameMs(fx.name);
    const int t = static_cast<int>(first) + relativeMs;
    TempDir dir;
    const std::string shot = dir.file("shot.jpg");
    auto item = openItem(fx.name);
    ASSERT_EQ(item->snapShot(shot.c_str(), t), 0);
    int width = 0;
    int height = 0;
    EXPECT_EQ(frameIndexOfImage(shot, &width, &height), frameAtOrAfter(t, first)) << "time " << t;
    EXPECT_EQ(width, fx.codedWidth);
    EXPECT_EQ(height, fx.codedHeight);
    Ffprobe probe(shot);
    EXPECT_EQ(probe.stream(0, "codec_name"), "mjpeg");
}

// Frame n is shown from n x 33.3 ms: most times fall between frames, 0 and
// 5000 exactly on one (frame 150, which must be chosen, not the next);
// 9950 and 20000 are past the last frame's start, which gives the last
// picture.
INSTANTIATE_TEST_SUITE_P(
    Fixtures, VideoItemSnapshot,
    ::testing::Combine(::testing::Values(ShotFixture{"h264_aac.mp4", 320, 240}, ShotFixture{"h264_aac_rot90.mp4", 320, 240},
                                         ShotFixture{"hevc.mp4", 320, 240}, ShotFixture{"mpeg4_bframes.mp4", 320, 240},
                                         ShotFixture{"vp9.webm", 320, 240}, ShotFixture{"odd_size.mp4", 321, 241}),
                       ::testing::Values(0, 1483, 2517, 5000, 7017, 9950, 20000)),
    [](const auto& info) {
        return testName(std::string(std::get<0>(info.param).name) + "_" + std::to_string(std::get<1>(info.param)));
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
TEST(VideoItemThreads, KeyFrameGrabsDuringAStripLeaveItIntact) {
    auto item = openItem("h264_aac.mp4");
    item->setItemParameters(0, 9000, 10, 160, 120, true);
    std::vector<int> dst(160 * 120);
    auto grab = [&](std::vector<int>& pixels, int timeMs) {
        int ret = item->getKeyFrameAt(pixels.data(), rgbaBytes(160, 120), 160, 120, timeMs);
        return ret != 0 ? -1 : frameIndexFromRgba(reinterpret_cast<uint8_t*>(pixels.data()), 160 * 4, 160, 120);
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
        shown.push_back(frameIndexFromRgba(reinterpret_cast<uint8_t*>(dst.data()), 160 * 4, 160, 120));
        if (index == 0) {
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
    std::vector<int> expectedShown;
    std::vector<int> expectedGrabbed;
    for (int i = 0; i < 10; ++i) {
        expectedShown.push_back(i * 30);
        expectedGrabbed.push_back((9 - i) * 30);
    }
    EXPECT_EQ(shown, expectedShown);
    EXPECT_EQ(grabbed, expectedGrabbed);
    EXPECT_GE(otherGrabs, 1);
    EXPECT_EQ(otherWrong, 0);
}

TEST(VideoItemThreads, ReleaseDuringAStripReturnsAfterTheStripAndOnlyOnce) {
    auto item = openItem("h264_aac.mp4");
    item->setItemParameters(0, 9000, 10, 160, 120, true);
    std::vector<int> dst(160 * 120);
    std::atomic<bool> releaseReturned{false};
    std::atomic<int> callsAfterRelease{0};
    std::future<bool> released;
    int calls = 0;
    FunctionSink sink([&](int index, int) {
        ++calls;
        if (releaseReturned) {
            ++callsAfterRelease;
        }
        if (index == 0) {
            released = std::async(std::launch::async, [&] {
                bool r = item->release();
                releaseReturned = true;
                return r;
            });
            // A release that did not wait for the strip would come back
            // within this time.
            auto deadline = std::chrono::steady_clock::now() + 300ms;
            while (!releaseReturned && std::chrono::steady_clock::now() < deadline) {
                std::this_thread::sleep_for(1ms);
            }
            EXPECT_FALSE(releaseReturned);
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

TEST(VideoItemThreads, ABusyItemTurnsAwayOtherCallsWithTheirWarnings) {
    LogCapture log;
    auto item = openItem("h264_aac.mp4");
    item->setItemParameters(0, 9000, 3, 160, 120, true);
    std::vector<int> dst(160 * 120);
    std::vector<int> other(160 * 120);
    RecordingSink recorder(&dst, 160, 120, 0);
    FunctionSink sink([&](int index, int pts) {
        if (index == 0) {
            std::thread([&] {
                FunctionSink none([](int, int) { return true; });
                EXPECT_EQ(item->getThumbnailList(other.data(), rgbaBytes(160, 120), none), -1);
                EXPECT_EQ(item->setSource(fixture("mpeg4.mp4").c_str(), false), -1);
                item->setItemParameters(0, 1000, 2, 160, 120, true);
                EXPECT_EQ(item->snapShot("/dev/null", 0), -1);
            }).join();
        }
        return recorder.onThumbnail(index, pts);
    });
    ASSERT_EQ(item->getThumbnailList(dst.data(), rgbaBytes(160, 120), sink), 0);
    auto calls = recorder.calls();
    ASSERT_EQ(calls.size(), 3u) << "the strip's parameters stayed as they were";
    EXPECT_EQ(calls[2].frame, 270);
    EXPECT_EQ(log.count("JNI_VideoItem", "get_thumbnaillist->tryluckMutex fail"), 1);
    EXPECT_EQ(log.count("JNI_VideoItem", "setSource->tryluckMutex fail"), 1);
    EXPECT_EQ(log.count("JNI_VideoItem", "setItemParameters->tryluckMutex fail"), 2);
}

// ---------------------------------------------------------------------------
// Bad files

TEST(VideoItemBadFiles, FilesThatDoNotOpenFailEveryJobCleanly) {
    for (const char* name : {"truncated_nomoov.mp4", "random.bin", "audio_only.m4a"}) {
        SCOPED_TRACE(name);
        LogCapture log;
        VideoItem item;
        const std::string path = fixture(name);
        EXPECT_LT(item.setSource(path.c_str(), false), 0);
        EXPECT_EQ(item.getWidth(), 0);
        std::vector<int> dst(160 * 120);
        EXPECT_LT(item.getKeyFrameAt(dst.data(), rgbaBytes(160, 120), 160, 120, 1000), 0);
        item.setItemParameters(0, 9000, 4, 160, 120, true);
        FunctionSink sink([](int, int) {
            ADD_FAILURE() << "no thumbnail can come from this file";
            return true;
        });
        EXPECT_EQ(item.getThumbnailList(dst.data(), rgbaBytes(160, 120), sink), 0);
        TempDir dir;
        EXPECT_EQ(item.snapShot(dir.file("x.jpg").c_str(), 1000), -1);
        EXPECT_TRUE(log.contains("JNI_VideoItem", "snapShot->getPacketFrame error"));
    }
}

TEST(VideoItemBadFiles, ATruncatedFileServesWhatItHolds) {
    // The header survives, the media data stops after about 60 % of the bytes.
    auto item = openItem("truncated.mp4");
    item->setItemParameters(0, 9000, 4, 160, 120, true);
    std::vector<int> dst(160 * 120);
    RecordingSink sink(&dst, 160, 120, 0);
    ASSERT_EQ(item->getThumbnailList(dst.data(), rgbaBytes(160, 120), sink), 0);
    auto calls = sink.calls();
    ASSERT_GE(calls.size(), 2u);
    EXPECT_EQ(calls[0].frame, 0);
    EXPECT_EQ(calls[1].frame, 90);

    LogCapture log;
    auto grabber = openItem("truncated.mp4");
    EXPECT_EQ(grabber->getKeyFrameAt(dst.data(), rgbaBytes(160, 120), 160, 120, 3000), 0);
    EXPECT_EQ(frameIndexFromRgba(reinterpret_cast<uint8_t*>(dst.data()), 160 * 4, 160, 120), 90);
    int ret = grabber->getKeyFrameAt(dst.data(), rgbaBytes(160, 120), 160, 120, 9500);
    EXPECT_LT(ret, 0);
    EXPECT_TRUE(log.contains("JNI_VideoItem", "readFrame error:" + std::to_string(ret)));

    // A snapshot past the data shows the last picture the file holds.
    CommandResult frames = runCommand("ffprobe -v quiet -select_streams v:0 -show_entries frame=pts_time -of csv=p=0 " +
                                      shellQuote(fixture("truncated.mp4")) + " | tail -n 1");
    ASSERT_EQ(frames.status, 0);
    const int lastFrame = static_cast<int>(std::lround(std::stod(frames.output) * 30));
    TempDir dir;
    auto shooter = openItem("truncated.mp4");
    ASSERT_EQ(shooter->snapShot(dir.file("x.jpg").c_str(), 9500), 0);
    int width = 0;
    int height = 0;
    EXPECT_EQ(frameIndexOfImage(dir.file("x.jpg"), &width, &height), lastFrame);
}

// ---------------------------------------------------------------------------
// Turns and pixel conversion

TEST(VideoItemPixels, TurnsTheTwoByThreePicture) {
    // Rows [a b], [c d], [e f].
    const int a = 1, b = 2, c = 3, d = 4, e = 5, f = 6;
    const int src[6] = {a, b, c, d, e, f};
    int dst[6] = {0};
    VideoItem::vemiRotate90(src, dst, 2, 3);
    EXPECT_EQ(std::vector<int>(dst, dst + 6), (std::vector<int>{e, c, a, f, d, b}));
    VideoItem::vemiRotate270(src, dst, 2, 3);
    EXPECT_EQ(std::vector<int>(dst, dst + 6), (std::vector<int>{b, d, f, a, c, e}));
    VideoItem::vemiRotate180(src, dst, 2, 3);
    EXPECT_EQ(std::vector<int>(dst, dst + 6), (std::vector<int>{f, e, d, c, b, a}));
}

// Decodes one picture of a fixture to convert.
class DecodedItem : public VideoItem {
public:
    // The first picture decoded from the key frame at or before timeMs.
    AVFrame* decodeAt(int timeMs) {
        if (seekFrame(timeMs, -1, AVSEEK_FLAG_BACKWARD) < 0) {
            return nullptr;
        }
        kavra::ScopedAVPacket packet = kavra::makeScopedAVPacket();
        int got = 0;
        while (!got && readFrame(packet.get()) >= 0) {
            if (packet->stream_index == getVideoStreamIndex()) {
                decodeVideo(&got, packet.get());
            }
            av_packet_unref(packet.get());
        }
        return got ? pVideoFrame.get() : nullptr;
    }
};

TEST(VideoItemPixels, ConversionTurnsARealPictureAndCopiesForAnyOtherAngle) {
    DecodedItem item;
    ASSERT_EQ(item.setSource(fixture("h264_aac.mp4").c_str(), true), 0);
    AVFrame* frame = item.decodeAt(6000);
    ASSERT_NE(frame, nullptr);
    const int w = 200;
    const int h = 150;
    std::vector<int> upright(w * h);
    ASSERT_EQ(item.YUV420PToRGBA(frame, upright.data(), w, h, 0), 0);
    EXPECT_EQ(frameIndexFromRgba(reinterpret_cast<uint8_t*>(upright.data()), w * 4, w, h), 180);
    for (int angle : {360, -90, 45}) {
        std::vector<int> copy(w * h);
        ASSERT_EQ(item.YUV420PToRGBA(frame, copy.data(), w, h, angle), 0);
        EXPECT_EQ(copy, upright) << angle;
    }
    for (int angle : {90, 180, 270}) {
        SCOPED_TRACE(angle);
        std::vector<int> turned(w * h);
        ASSERT_EQ(item.YUV420PToRGBA(frame, turned.data(), w, h, angle), 0);
        const bool quarter = angle != 180;
        const int tw = quarter ? h : w;
        const int th = quarter ? w : h;
        EXPECT_EQ(frameIndexFromRgba(reinterpret_cast<uint8_t*>(turned.data()), tw * 4, tw, th, angle), 180);
        std::vector<int> expected(w * h);
        if (angle == 90) VideoItem::vemiRotate90(upright.data(), expected.data(), w, h);
        if (angle == 180) VideoItem::vemiRotate180(upright.data(), expected.data(), w, h);
        if (angle == 270) VideoItem::vemiRotate270(upright.data(), expected.data(), w, h);
        EXPECT_EQ(turned, expected);
    }
}

}  // namespace
}  // namespace kavra::test
