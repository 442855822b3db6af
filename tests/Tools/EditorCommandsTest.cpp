// kavra thumbs, keyframe and snapshot: the pictures they write (decoded
// back with the ffmpeg tool and read by frame index) and the thumbs JSON.

#include <gtest/gtest.h>

#include <vector>

#include "../tools/kavra/ContactSheet.h"
#include "ToolJson.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"
#include "support/FrameIndex.h"
#include "support/ScratchDir.h"

namespace kavra::test {
namespace {

// Runs the tool with `args`, "{OUT}" standing for `out`.
CommandResult kavraTo(std::string args, const std::string& out) {
    return kavra(args.replace(args.find("{OUT}"), 5, shellQuote(out)));
}

struct Sheet {
    const char* name;
    std::string args;
    int thumbWidth;
    int thumbHeight;
    int rotation;
    std::vector<double> targetsMs;
    std::vector<int> keyFrames;  // at or before each target
};

class ThumbsCommand : public ::testing::TestWithParam<Sheet> {};

TEST_P(ThumbsCommand, SheetAndJsonShowTheKeyFrameAtOrBeforeEachTarget) {
    const Sheet& s = GetParam();
    ScratchDir dir;
    const std::string sheetPath = dir.file("sheet.png");
    CommandResult r = kavraTo(s.args + " -o {OUT} --json", sheetPath);
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_EQ(r.output.rfind("{\"thumbnails\": [", 0), 0u) << r.output;
    const int count = static_cast<int>(s.targetsMs.size());
    const auto layout = tool::ContactSheetLayout::make(count, s.thumbWidth, s.thumbHeight);
    RgbaImage sheet = decodeImage(sheetPath);
    ASSERT_EQ(sheet.width, layout.width);
    ASSERT_EQ(sheet.height, layout.height);
    std::vector<double> indices;
    std::vector<double> pts;
    std::vector<int> shown;
    for (int i = 0; i < count; ++i) {
        indices.push_back(i);
        pts.push_back(s.keyFrames[i] / 30 * 1000);
        shown.push_back(frameIndexFromRgba(sheet.at(layout.x(i), layout.y(i)), sheet.width * 4, layout.thumbWidth,
                                           layout.thumbHeight, s.rotation));
    }
    EXPECT_EQ(jsonNumbers(r.output, "index"), indices) << r.output;
    EXPECT_EQ(jsonNumbers(r.output, "target_ms"), s.targetsMs) << r.output;
    EXPECT_EQ(jsonNumbers(r.output, "pts_ms"), pts) << r.output;
    EXPECT_EQ(shown, s.keyFrames);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ThumbsCommand,
    ::testing::Values(Sheet{"Range", "thumbs " + shellQuote(fixture("h264_aac.mp4")) +
                                         " --count 7 --from 250 --to 9.75s --size 160x120",
                            160, 120, 0, {250, 1833, 3416, 4999, 6582, 8165, 9748}, {0, 30, 90, 120, 180, 240, 270}},
                      // The whole file, 160 pixels wide in display orientation:
                      // 240x320 on screen gives 213.3, rounded to an even 214.
                      Sheet{"Defaults", "thumbs " + shellQuote(fixture("h264_aac_rot90.mp4")) + " --count 4", 160, 214,
                            90, {0, 3333, 6666, 9999}, {0, 90, 180, 270}}),
    FixtureName());

struct Picture {
    const char* name;
    std::string args;
    const char* file;
    int width;
    int height;
    int rotation;
    int frame;
};

class PictureCommand : public ::testing::TestWithParam<Picture> {};

TEST_P(PictureCommand, WritesTheExpectedFrame) {
    const Picture& p = GetParam();
    ScratchDir dir;
    const std::string out = dir.file(p.file);
    ASSERT_EQ(kavraTo(p.args, out).status, 0);
    RgbaImage image = decodeImage(out);
    ASSERT_EQ(image.width, p.width);
    ASSERT_EQ(image.height, p.height);
    EXPECT_EQ(frameIndexFromRgba(image.at(0, 0), p.width * 4, p.width, p.height, p.rotation), p.frame);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, PictureCommand,
    ::testing::Values(
        // A key frame at or before the time, as PNG, in display orientation.
        Picture{"KeyframeSized", "keyframe " + shellQuote(fixture("h264_aac.mp4")) + " --at 4.5s --size 200x150 -o {OUT}",
                "key.png", 200, 150, 0, 120},
        Picture{"KeyframeTurned", "keyframe " + shellQuote(fixture("h264_aac_rot90.mp4")) + " --at 00:07.999 -o {OUT}",
                "key.png", 160, 214, 90, 210},
        // The first frame at or after the time, as a coded-size JPEG.
        Picture{"Snapshot", "snapshot " + shellQuote(fixture("h264_aac_rot90.mp4")) + " --at 1483ms -o {OUT}",
                "shot.jpg", 320, 240, 0, 45}),
    FixtureName());

}  // namespace
}  // namespace kavra::test
