// kavra thumbs, keyframe and snapshot: the pictures they write (decoded
// back with the ffmpeg tool and read by frame index), the thumbs JSON, and
// the one-line errors with exit status 1.

#include <gtest/gtest.h>

#include <cstdio>

#include "../tools/kavra/ContactSheet.h"
#include "EditorTestSupport.h"

namespace kavra::test {
namespace {

// Bounded: a command that hangs fails with timeout's status 124.
CommandResult kavra(const std::string& args) {
    return runCommand("timeout 120 " + shellQuote(kavraTool()) + " " + args);
}

// An image file decoded to RGBA by the ffmpeg tool.
struct Rgba {
    int width = 0;
    int height = 0;
    std::string bytes;
    const uint8_t* at(int x, int y) const {
        return reinterpret_cast<const uint8_t*>(bytes.data()) + (static_cast<size_t>(y) * width + x) * 4;
    }
};

Rgba decodeImage(const std::string& path) {
    Rgba image;
    Ffprobe probe(path, "-select_streams v:0");
    image.width = static_cast<int>(probe.streamNumber(0, "width", 0));
    image.height = static_cast<int>(probe.streamNumber(0, "height", 0));
    CommandResult r = runCommand("ffmpeg -v error -nostdin -i " + shellQuote(path) + " -f rawvideo -pix_fmt rgba -");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.output.size(), static_cast<size_t>(image.width) * image.height * 4) << path;
    image.bytes = r.output;
    return image;
}

struct JsonThumbnail {
    int index;
    long long targetMs;
    long long ptsMs;
};

// The entries of the thumbs JSON, in order.
std::vector<JsonThumbnail> parseThumbnails(const std::string& json) {
    std::vector<JsonThumbnail> out;
    for (size_t pos = json.find("{\"index\""); pos != std::string::npos; pos = json.find("{\"index\"", pos + 1)) {
        JsonThumbnail t{};
        if (sscanf(json.c_str() + pos, "{\"index\": %d, \"target_ms\": %lld, \"pts_ms\": %lld}", &t.index, &t.targetMs,
                   &t.ptsMs) == 3) {
            out.push_back(t);
        }
    }
    return out;
}

// The frame index shown in each cell of a contact sheet.
std::vector<int> sheetFrames(const Rgba& sheet, const tool::ContactSheetLayout& layout, int rotation) {
    std::vector<int> frames;
    for (int i = 0; i < layout.count; ++i) {
        frames.push_back(frameIndexFromRgba(sheet.at(layout.x(i), layout.y(i)), sheet.width * 4, layout.thumbWidth,
                                            layout.thumbHeight, rotation));
    }
    return frames;
}

TEST(ThumbsCommand, SheetAndJsonShowTheKeyFrameAtOrBeforeEachTarget) {
    TempDir dir;
    const std::string sheetPath = dir.file("sheet.png");
    CommandResult r = kavra("thumbs " + shellQuote(fixture("h264_aac.mp4")) +
                            " --count 7 --from 250 --to 9.75s --size 160x120 -o " + shellQuote(sheetPath) + " --json");
    ASSERT_EQ(r.status, 0) << r.output;
    std::vector<JsonThumbnail> thumbs = parseThumbnails(r.output);
    ASSERT_EQ(thumbs.size(), 7u) << r.output;
    EXPECT_EQ(r.output.rfind("{\"thumbnails\": [", 0), 0u) << r.output;

    const auto layout = tool::ContactSheetLayout::make(7, 160, 120);
    Rgba sheet = decodeImage(sheetPath);
    ASSERT_EQ(sheet.width, layout.width);
    ASSERT_EQ(sheet.height, layout.height);
    std::vector<int> frames = sheetFrames(sheet, layout, 0);
    for (int i = 0; i < 7; ++i) {
        SCOPED_TRACE(i);
        const long long target = 250 + i * 1583;
        const int key = keyFrameAtOrBefore(static_cast<double>(target), 0);
        EXPECT_EQ(thumbs[i].index, i);
        EXPECT_EQ(thumbs[i].targetMs, target);
        EXPECT_EQ(thumbs[i].ptsMs, key / 30 * 1000);
        EXPECT_EQ(frames[i], key);
    }
}

TEST(ThumbsCommand, DefaultsSpanTheWholeFileAt160PixelsWideInDisplayOrientation) {
    TempDir dir;
    const std::string sheetPath = dir.file("sheet.png");
    CommandResult r =
        kavra("thumbs " + shellQuote(fixture("h264_aac_rot90.mp4")) + " --count 4 -o " + shellQuote(sheetPath) + " --json");
    ASSERT_EQ(r.status, 0) << r.output;
    std::vector<JsonThumbnail> thumbs = parseThumbnails(r.output);
    ASSERT_EQ(thumbs.size(), 4u);
    EXPECT_EQ(thumbs.front().targetMs, 0);
    EXPECT_EQ(thumbs.back().targetMs, 9999);  // 10 s in three equal whole-ms steps
    // 240x320 on screen: 160 wide, 213.3 rounded to an even 214 high.
    const auto layout = tool::ContactSheetLayout::make(4, 160, 214);
    Rgba sheet = decodeImage(sheetPath);
    ASSERT_EQ(sheet.width, layout.width);
    ASSERT_EQ(sheet.height, layout.height);
    EXPECT_EQ(sheetFrames(sheet, layout, 90), (std::vector<int>{0, 90, 180, 270}));
}

TEST(KeyframeCommand, WritesTheKeyFrameAsAPng) {
    TempDir dir;
    const std::string out = dir.file("frame.png");
    ASSERT_EQ(kavra("keyframe " + shellQuote(fixture("h264_aac.mp4")) + " --at 4.5s --size 200x150 -o " + shellQuote(out))
                  .status,
              0);
    Rgba image = decodeImage(out);
    ASSERT_EQ(image.width, 200);
    ASSERT_EQ(image.height, 150);
    EXPECT_EQ(frameIndexFromRgba(image.at(0, 0), 200 * 4, 200, 150), 120);

    ASSERT_EQ(kavra("keyframe " + shellQuote(fixture("h264_aac_rot90.mp4")) + " --at 00:07.999 -o " + shellQuote(out))
                  .status,
              0);
    image = decodeImage(out);
    ASSERT_EQ(image.width, 160);
    ASSERT_EQ(image.height, 214);
    EXPECT_EQ(frameIndexFromRgba(image.at(0, 0), 160 * 4, 160, 214, 90), 210);
}

TEST(SnapshotCommand, WritesTheFirstFrameAtOrAfterTheTimeAsAFullSizeJpeg) {
    TempDir dir;
    const std::string out = dir.file("shot.jpg");
    ASSERT_EQ(kavra("snapshot " + shellQuote(fixture("h264_aac_rot90.mp4")) + " --at 1483ms -o " + shellQuote(out))
                  .status,
              0);
    int width = 0;
    int height = 0;
    EXPECT_EQ(frameIndexOfImage(out, &width, &height), 45);
    EXPECT_EQ(width, 320);
    EXPECT_EQ(height, 240);
}

struct BadCall {
    const char* label;
    std::string args;  // "OUT" stands for a path in the test's directory
};

class EditorCommandErrors : public ::testing::TestWithParam<BadCall> {};

TEST_P(EditorCommandErrors, OneLineOnStderrAndExitStatusOne) {
    TempDir dir;
    std::string args = GetParam().args;
    const std::string out = dir.file("out.img");
    size_t pos = args.find("OUT");
    if (pos != std::string::npos) {
        args.replace(pos, 3, shellQuote(out));
    }
    CommandResult r = kavra(args + " 2>&1 >/dev/null");
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_EQ(r.output.rfind("kavra: ", 0), 0u) << r.output;
    EXPECT_EQ(r.output.find('\n'), r.output.size() - 1) << "one line: " << r.output;
    EXPECT_NE(access(out.c_str(), F_OK), 0) << "no output is left behind";
}

const std::string kClip = shellQuote(fixture("h264_aac.mp4"));

INSTANTIATE_TEST_SUITE_P(
    Cases, EditorCommandErrors,
    ::testing::Values(
        BadCall{"ThumbsMissingFile", "thumbs /no/such/clip.mp4 --count 3 -o OUT"},
        BadCall{"ThumbsAudioOnly", "thumbs " + shellQuote(fixture("audio_only.m4a")) + " --count 3 -o OUT"},
        BadCall{"ThumbsNotMedia", "thumbs " + shellQuote(fixture("random.bin")) + " --count 3 -o OUT"},
        BadCall{"ThumbsCountZero", "thumbs " + kClip + " --count 0 -o OUT"},
        BadCall{"ThumbsCountMissing", "thumbs " + kClip + " -o OUT"},
        BadCall{"ThumbsBadSize", "thumbs " + kClip + " --count 2 --size 160 -o OUT"},
        BadCall{"ThumbsUnwritable", "thumbs " + kClip + " --count 2 -o /no/such/dir/sheet.png"},
        BadCall{"ThumbsOutputIsADirectory", "thumbs " + kClip + " --count 2 -o /tmp"},
        BadCall{"KeyframePastTheEnd", "keyframe " + kClip + " --at 10.5s -o OUT"},
        BadCall{"KeyframeBadTime", "keyframe " + kClip + " --at soon -o OUT"},
        BadCall{"SnapshotNoMoov", "snapshot " + shellQuote(fixture("truncated_nomoov.mp4")) + " --at 1s -o OUT"},
        BadCall{"SnapshotUnwritable", "snapshot " + kClip + " --at 1s -o /no/such/dir/s.jpg"},
        BadCall{"SnapshotNoTime", "snapshot " + kClip + " -o OUT"},
        // Reads fail for ever from about 4 s on: the commands end and say so.
        BadCall{"ThumbsDamaged", "thumbs " + shellQuote(fixture("damaged_sample_table.mp4")) + " --count 10 -o OUT"},
        BadCall{"SnapshotDamaged",
                "snapshot " + shellQuote(fixture("damaged_sample_table.mp4")) + " --at 4.5s -o OUT"}),
    [](const auto& info) { return std::string(info.param.label); });

}  // namespace
}  // namespace kavra::test
