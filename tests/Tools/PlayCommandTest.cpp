// `kavra play --headless --json`: a scripted run of seeks, a pause and a
// track switch plays to the end, and each seek shows the frame whose span
// holds the target, as ffprobe lists the frames.

#include <gtest/gtest.h>

#include <algorithm>

#include "ToolJson.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"

namespace kavra::test {
namespace {

// Presentation times (ms) of the video frames, as ffprobe lists them.
std::vector<double> framePtsMs(const std::string& path) {
    Ffprobe probe(path, "-select_streams v:0 -show_entries frame=pts_time");
    std::vector<double> pts;
    for (int n = 0; !probe.get("frames.frame." + std::to_string(n) + ".pts_time").empty(); ++n) {
        pts.push_back(probe.number("frames.frame." + std::to_string(n) + ".pts_time", NAN) * 1000.0);
    }
    pts.erase(std::remove_if(pts.begin(), pts.end(), [](double t) { return std::isnan(t); }), pts.end());
    std::sort(pts.begin(), pts.end());
    return pts;
}

struct PlayCase {
    const char* name;
    const char* extraScript;
};

class PlayCommand : public ::testing::TestWithParam<PlayCase> {};

TEST_P(PlayCommand, ScriptedSeeksShowTheFrameHoldingTheTarget) {
    const std::string path = fixture(GetParam().name);
    // Targets fall inside frames, away from frame boundaries: forward far,
    // backward while paused, forward again after resuming.
    const std::vector<int> targets = {3020, 1250, 7015};
    const std::string script = "100 seek 3020; 400 pause; 500 seek 1250; 700 resume; 900 seek 7015" +
                               std::string(GetParam().extraScript);
    CommandResult r = kavra("play --headless --json --speed 4 " + shellQuote(path) + " --script " + shellQuote(script));
    ASSERT_EQ(r.status, 0) << r.output;
    EXPECT_NE(r.output.find("\"completed\": true"), std::string::npos) << r.output;

    // The player counts seek targets from the later start of its streams.
    Ffprobe probe(path);
    double startMs = 0;
    for (int i = 0; i < probe.streamCount(); ++i) {
        startMs = std::max(startMs, probe.streamNumber(i, "start_time") * 1000.0);
    }
    ASSERT_EQ(jsonNumbers(r.output, "start_ms").at(0), std::floor(startMs + 1e-6)) << r.output;

    const std::vector<double> frames = framePtsMs(path);
    ASSERT_FALSE(frames.empty());
    const std::vector<double> shown = jsonNumbers(r.output, "shown_pts_ms");
    ASSERT_EQ(shown.size(), targets.size()) << r.output;
    std::vector<double> expected;
    for (int t : targets) {
        auto after = std::upper_bound(frames.begin(), frames.end(), startMs + t);
        expected.push_back(after == frames.begin() ? frames.front() : *(after - 1));
    }
    for (size_t i = 0; i < targets.size(); ++i) {
        // A seek still being carried out when the next one comes is replaced
        // by it, and shows that one's frame. Frame times reach the engine
        // as whole milliseconds.
        bool landed = false;
        for (size_t j = i; j < targets.size() && !landed; ++j) {
            landed = std::fabs(shown[i] - expected[j]) <= 1.0;
        }
        EXPECT_TRUE(landed) << "seek " << targets[i] << " showed " << shown[i] << ", not " << expected[i] << ": "
                            << r.output;
    }
    EXPECT_GT(jsonNumbers(r.output, "frames_presented").at(0), 0) << r.output;
}

INSTANTIATE_TEST_SUITE_P(Fixtures, PlayCommand,
                         ::testing::Values(PlayCase{"h264_aac.mp4", ""}, PlayCase{"late_start.ts", ""},
                                           PlayCase{"hevc.mp4", ""}, PlayCase{"two_audio.mp4", "; 1100 track 1"}),
                         FixtureName());

}  // namespace
}  // namespace kavra::test
