// The trimmer on real media: which frames come out, whether the result
// decodes cleanly in the ffmpeg tool, what is copied and what re-encoded,
// audio length, rotation, extreme times and its life cycle.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "TrimMedia.h"
#include "support/Fixtures.h"
#include "support/LogCapture.h"
#include "trimmer/VideoTrimer.h"

namespace kavra::test {
namespace {

const char* kTag = "meeeeNativeVideoTrimer";

struct TrimRun {
    int trimmed = -100;
    bool copies = false;
    int64_t copied = 0;
    int64_t encoded = 0;
    int64_t audio = 0;
};

TrimRun trim(const std::string& in, const std::string& out, int64_t startMs, int64_t endMs, int mode,
             bool keepCodec = false) {
    TrimRun r;
    // The trimmer keeps copies of the paths: the caller's buffers are
    // scribbled over once it is constructed.
    std::vector<char> inBuf(in.c_str(), in.c_str() + in.size() + 1);
    std::vector<char> outBuf(out.c_str(), out.c_str() + out.size() + 1);
    VideoTrimer trimer(inBuf.data(), outBuf.data());
    std::fill(inBuf.begin(), inBuf.end() - 1, 'z');
    std::fill(outBuf.begin(), outBuf.end() - 1, 'z');
    trimer.setKeepVideoCodec(keepCodec);
    trimer.setTrimParam(startMs * 1000, endMs * 1000);
    if (trimer.prepare() != 0) {
        return r;
    }
    r.copies = trimer.copiesVideo();
    r.trimmed = trimer.startTrim(mode);
    r.copied = trimer.videoFramesCopied();
    r.encoded = trimer.videoFramesEncoded();
    r.audio = trimer.audioPacketsWritten();
    trimer.release();
    return r;
}

// Audio and video of a result end together: the audio is within one audio
// packet of the video's length.
void expectAudioMatchesVideo(const MediaReport& m) {
    ASSERT_EQ(m.audioStreams, 1);
    EXPECT_NEAR(m.audioSeconds, m.videoSeconds, m.longestAudioPacket + 1e-6);
}

// ---------------------------------------------------------------------------
// Keep and cut on every kind of input, at the ends of the file, and with the
// input's video codec kept. Key frames every 30 frames; in the H.264
// open-GOP clip only the first is an IDR picture. Inputs that cannot keep their codec fall
// back to MPEG-4 and say why.

constexpr int64_t kAll = -1;  // every frame re-encoded

struct RangeCase {
    const char* name;
    const char* file;
    int mode;
    int startMs;
    int endMs;
    std::vector<int> frames;
    int64_t encoded;  // frames re-encoded, or kAll
    bool keepCodec = false;
    const char* fallBack = nullptr;  // the reason logged, or null when the codec is kept
};

class TrimRange : public ::testing::TestWithParam<RangeCase> {};

// With the codec kept, copied frames are the input's pictures exactly and
// re-encoded ones close to them.
TEST_P(TrimRange, KeepsExactlyTheFramesOfTheRangeAndDecodesCleanly) {
    const RangeCase& c = GetParam();
    ScratchDir dir;
    std::string out = dir.file("range.mp4");
    LogCapture log;
    TrimRun r = trim(fixture(c.file), out, c.startMs, c.endMs, c.mode, c.keepCodec);
    ASSERT_EQ(r.trimmed, 0);
    EXPECT_EQ(ffmpegDecodeComplaints(out), "");
    MediaReport m = inspectMedia(out, c.keepCodec);
    MediaReport source = inspectMedia(fixture(c.file), c.keepCodec);
    EXPECT_EQ(m.frames, c.frames);
    EXPECT_EQ(m.rotation, source.rotation);
    EXPECT_NEAR(m.videoStart, 0, 1e-3) << "the first picture comes with the first sound";
    EXPECT_EQ(m.frameRate.num, 30 * m.frameRate.den);
    EXPECT_NEAR(m.videoSeconds, m.frames.size() / 30.0, 1.0 / 30 + 1e-6);
    EXPECT_EQ(r.encoded, c.encoded == kAll ? static_cast<int64_t>(m.frames.size()) : c.encoded);
    EXPECT_EQ(r.copied + r.encoded, static_cast<int64_t>(m.frames.size()));
    EXPECT_EQ(r.audio, m.audioPackets);
    EXPECT_EQ(m.audioStreams, source.audioStreams);
    if (source.audioStreams > 0) {
        expectAudioMatchesVideo(m);
    }
    if (c.fallBack != nullptr) {
        EXPECT_TRUE(log.contains(kTag, std::string("keep codec: re-encoding to MPEG-4 instead: ") + c.fallBack));
    }
    if (!c.keepCodec || c.fallBack != nullptr) {
        EXPECT_EQ(m.videoCodec, AV_CODEC_ID_MPEG4);
        return;
    }
    EXPECT_EQ(m.videoCodec, source.videoCodec);
    int64_t exact = 0;
    double worst = INFINITY;
    for (size_t i = 0; i < m.frames.size() && i < m.pictures.size(); ++i) {
        double db = psnr(m.pictures[i], source.pictures.at(static_cast<size_t>(m.frames[i])));
        exact += std::isinf(db) ? 1 : 0;
        worst = std::min(worst, db);
    }
    EXPECT_EQ(exact, r.copied) << "every copied frame, and only those, is the source's picture";
    EXPECT_GE(worst, 40.0);
}

// 1100 ms is frame 33 exactly, 3500 ms frame 105. A copiable input (MPEG-4
// Part 2 without B-frames) is re-encoded only up to the next key frame after
// a cut (60 when keeping 33-105, 120 after a cut at 105); any other in full.
const std::vector<int> kKept = run(33, 105);
const std::vector<int> kCut = concat(run(0, 32), run(105, 299));

INSTANTIATE_TEST_SUITE_P(
    Cuts, TrimRange,
    ::testing::Values(
        RangeCase{"keep_h264", "h264_aac.mp4", 0, 1100, 3500, kKept, kAll},
        RangeCase{"cut_h264", "h264_aac.mp4", 1, 1100, 3500, kCut, kAll},
        RangeCase{"cut_mpeg4", "mpeg4.mp4", 1, 1100, 3500, kCut, 120 - 105},
        RangeCase{"cut_mpeg4_bframes", "mpeg4_bframes.mp4", 1, 1100, 3500, kCut, kAll},
        RangeCase{"keep_video_only", "video_only.mp4", 0, 1100, 3500, kKept, kAll},
        RangeCase{"cut_video_only", "video_only.mp4", 1, 1100, 3500, kCut, kAll},
        RangeCase{"keep_odd_size", "odd_size.mp4", 0, 1100, 3500, kKept, 60 - 33},
        RangeCase{"cut_odd_size", "odd_size.mp4", 1, 1100, 3500, kCut, 120 - 105},
        RangeCase{"cut_vp9", "vp9.webm", 1, 1100, 3500, kCut, kAll},
        RangeCase{"keep_late_start", "late_start.ts", 0, 1100, 3500, kKept, kAll},
        RangeCase{"cut_late_start", "late_start.ts", 1, 1100, 3500, kCut, kAll},
        RangeCase{"keep_past_the_end_h264", "h264_aac.mp4", 0, 9000, 20000, run(270, 299), kAll},
        RangeCase{"keep_past_the_end_mpeg4", "mpeg4.mp4", 0, 9010, 20000, run(271, 299), 29},
        RangeCase{"keep_from_zero_mpeg4", "mpeg4.mp4", 0, 0, 1990, run(0, 59), 0},
        RangeCase{"cut_the_head_h264", "h264_aac.mp4", 1, 0, 2000, run(60, 299), kAll},
        RangeCase{"cut_the_head_mpeg4", "mpeg4.mp4", 1, 0, 2010, run(61, 299), 90 - 61},
        RangeCase{"cut_the_tail_h264", "h264_aac.mp4", 1, 8000, 20000, run(0, 239), kAll},
        RangeCase{"cut_the_tail_mpeg4", "mpeg4.mp4", 1, 8010, 20000, run(0, 240), 0},
        RangeCase{"cut_one_frame_mpeg4", "mpeg4.mp4", 1, 1990, 2010, concat(run(0, 59), run(61, 299)), 90 - 61},
        // The input's codec kept. Re-encoded: from the start to the IDR
        // picture at 60, and 103-105, which depend on a picture after 105.
        RangeCase{"h264_keep_between_keys", "h264_aac.mp4", 0, 1100, 3500, kKept, 27 + 3, true},
        RangeCase{"h264_keep_on_keys", "h264_aac.mp4", 0, 1000, 3000, run(30, 90), 0, true},
        RangeCase{"h264_cut_between_keys", "h264_aac.mp4", 1, 1100, 3500, kCut, 2 + 15, true},
        RangeCase{"h264_rot90_cut_on_keys", "h264_aac_rot90.mp4", 1, 1000, 2000, concat(run(0, 29), run(60, 299)), 0,
                  true},
        RangeCase{"h264_open_gop", "h264_open_gop.mp4", 0, 1100, 2500, run(33, 75), 43, true},
        RangeCase{"hevc_keep_between_keys", "hevc.mp4", 0, 1100, 3500, kKept, 27, true},
        RangeCase{"hevc_keep_on_keys", "hevc.mp4", 0, 1000, 3000, run(30, 90), 0, true},
        RangeCase{"hevc_cut_on_keys", "hevc.mp4", 1, 1000, 2000, concat(run(0, 29), run(60, 299)), 0, true},
        RangeCase{"hevc_cut_between_keys", "hevc.mp4", 1, 1100, 3500, kCut, 2 + 15, true},
        // CRA pictures joined to as BLA pictures, without their RASL pictures.
        RangeCase{"hevc_open_gop_keep", "hevc_open_gop.mp4", 0, 1100, 3500, kKept, 27, true},
        RangeCase{"hevc_open_gop_cut", "hevc_open_gop.mp4", 1, 1100, 3500, kCut, 2 + 15, true},
        // Inputs that cannot keep their codec: re-encoded in full as MPEG-4
        // (these are the keep runs of MPEG-4 with B-frames and of VP9 too).
        RangeCase{"mpeg4_bframes", "mpeg4_bframes.mp4", 0, 1100, 3500, kKept, kAll, true, "mpeg4 input"},
        RangeCase{"vp9", "vp9.webm", 0, 1100, 3500, kKept, kAll, true, "vp9 input"}),
    [](const ::testing::TestParamInfo<RangeCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Copying MPEG-4 Part 2 packets: from the first key frame at or after a cut,
// every packet is the input's byte for byte. Where the input's configuration
// differs from the encoder's, a copied run that follows encoded frames may
// start with the input's header in front; where it matches, nothing is added.

struct CopyCase {
    const char* name;
    const char* input;
    int startMs;
    int endMs;
    int mode;
    std::vector<int> frames;
    int64_t encoded;
    bool headerInFront;
};

class TrimMpeg4Copy : public ::testing::TestWithParam<CopyCase> {};

bool endsWith(const std::vector<uint8_t>& data, const std::vector<uint8_t>& tail) {
    return data.size() >= tail.size() && std::equal(tail.begin(), tail.end(), data.end() - static_cast<long>(tail.size()));
}

TEST_P(TrimMpeg4Copy, CopiesEveryPacketFromTheKeyFrameAfterACutByteForByte) {
    const CopyCase& c = GetParam();
    ScratchDir dir;
    const std::string in = fixture(c.input);
    std::string out = dir.file("copy.mp4");
    LogCapture log;
    TrimRun r = trim(in, out, c.startMs, c.endMs, c.mode);
    ASSERT_EQ(r.trimmed, 0);
    EXPECT_TRUE(r.copies);
    EXPECT_EQ(r.encoded, c.encoded);
    EXPECT_EQ(ffmpegDecodeComplaints(out), "");
    EXPECT_EQ(log.contains(kTag, "video packets copied where possible, headers in the container"), !c.headerInFront);
    MediaReport source = inspectMedia(in);
    MediaReport m = inspectMedia(out);
    ASSERT_EQ(m.frames, c.frames);
    EXPECT_EQ(av_cmp_q(m.frameRate, source.frameRate), 0);
    expectAudioMatchesVideo(m);
    // Without B-frames the n-th packet is the n-th frame.
    int64_t same = 0;
    for (size_t i = 0; i < m.frames.size(); ++i) {
        const Packet& got = m.videoPackets.at(i);
        const Packet& want = source.videoPackets.at(static_cast<size_t>(m.frames[i]));
        bool copied = got.data == want.data || (c.headerInFront && got.key && endsWith(got.data, want.data));
        same += copied && got.key == want.key ? 1 : 0;
    }
    EXPECT_EQ(same, r.copied);
    EXPECT_EQ(r.copied + r.encoded, static_cast<int64_t>(c.frames.size()));
}

INSTANTIATE_TEST_SUITE_P(
    Ranges, TrimMpeg4Copy,
    ::testing::Values(CopyCase{"keep_on_key_frames", "mpeg4.mp4", 1000, 3500, 0, run(30, 105), 0, true},
                      CopyCase{"cut_on_key_frames", "mpeg4.mp4", 1100, 2000, 1, concat(run(0, 32), run(60, 299)), 0,
                               true},
                      CopyCase{"keep_between_key_frames", "mpeg4.mp4", 1100, 3500, 0, run(33, 105), 60 - 33, true},
                      CopyCase{"input_like_the_encoder", "mpeg4_like_encoder.mp4", 1100, 3500, 0, run(33, 105), 27,
                               false},
                      // 1100 ms lies just after frame 32 (1067.7 ms), 3500 ms
                      // just before frame 105 (3503.5 ms).
                      CopyCase{"keep_other_time_resolution", "mpeg4_ntsc.mp4", 1100, 3500, 0, run(33, 104), 27, true},
                      CopyCase{"cut_other_time_resolution", "mpeg4_ntsc.mp4", 1100, 3500, 1,
                               concat(run(0, 32), run(105, 299)), 120 - 105, true}),
    [](const ::testing::TestParamInfo<CopyCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Times and modes from the Java side, and the life cycle.

// Whatever times the Java side passes: no overflow, no repeated frames. A
// mode that is neither keep (0) nor cut (1) writes an empty but complete file.
TEST(TrimOutput, ExtremeTimesKeepTheWholeFileAndOtherModesNothing) {
    ScratchDir dir;
    struct Case {
        int64_t startUs;
        int64_t endUs;
        int mode;
        std::vector<int> frames;
    } cases[] = {{-5000000, INT64_MAX, 0, run(0, 299)}, {INT64_MIN, INT64_MAX, 0, run(0, 299)},
                 {INT64_MAX, INT64_MIN, 1, run(0, 299)}, {5000000, 2000000, 1, run(0, 299)},
                 {1000000, 2000000, 2, {}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.startUs) + " " + std::to_string(c.endUs) + " mode " + std::to_string(c.mode));
        std::string out = dir.file("whole.mp4");
        VideoTrimer trimer(fixture("mpeg4.mp4").c_str(), out.c_str());
        trimer.setTrimParam(c.startUs, c.endUs);
        ASSERT_EQ(trimer.prepare(), 0);
        EXPECT_EQ(trimer.startTrim(c.mode), 0);
        trimer.release();
        MediaReport m = inspectMedia(out);
        ASSERT_TRUE(m.opened) << "header and trailer make a readable file";
        EXPECT_EQ(m.frames, c.frames);
        if (c.frames.empty()) {
            EXPECT_EQ(m.audioPackets, 0);
        }
    }
}

// startTrim runs once, after a successful prepare; release may come twice.
// A longer file under the output name is replaced whole, and the input
// itself is never taken as the output.
TEST(TrimLifecycle, RunsOnceAfterPrepareReplacesTheOutputAndNeverWritesTheInput) {
    ScratchDir dir;
    std::string out = dir.file("old.mp4");
    std::ofstream(out, std::ios::binary) << std::string(8 * 1024 * 1024, 'x');
    VideoTrimer trimer(fixture("mpeg4.mp4").c_str(), out.c_str());
    trimer.setTrimParam(0, 1000000);
    EXPECT_EQ(trimer.startTrim(0), -1);
    ASSERT_EQ(trimer.prepare(), 0);
    EXPECT_EQ(trimer.startTrim(0), 0);
    EXPECT_EQ(trimer.startTrim(0), -1);
    trimer.release();
    trimer.release();
    EXPECT_EQ(trimer.startTrim(0), -1);
    EXPECT_EQ(inspectMedia(out).frames, run(0, 30));
    EXPECT_LT(std::filesystem::file_size(out), 4u * 1024 * 1024);

    const std::string copy = dir.file("same.mp4");
    ASSERT_EQ(runCommand("cp " + shellQuote(fixture("mpeg4.mp4")) + " " + shellQuote(copy)).status, 0);
    VideoTrimer same(copy.c_str(), copy.c_str());
    same.setTrimParam(0, 500000);
    EXPECT_EQ(same.prepare(), -5);
    EXPECT_EQ(same.startTrim(0), -1);
    EXPECT_EQ(runCommand("cmp " + shellQuote(copy) + " " + shellQuote(fixture("mpeg4.mp4"))).status, 0)
        << "the input is untouched";
}

}  // namespace
}  // namespace kavra::test
