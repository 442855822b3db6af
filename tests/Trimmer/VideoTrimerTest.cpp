// The trimmer on real media: which frames come out, whether the result
// decodes cleanly in the ffmpeg tool, what is copied and what re-encoded,
// audio length, rotation, and every setup failure that a real file causes.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "TrimMedia.h"
#include "support/Fixtures.h"
#include "support/LogCapture.h"
#include "trimmer/TrimProgressListener.h"
#include "trimmer/VideoTrimer.h"

namespace kavra::test {
namespace {

const char* kTag = "meeeeNativeVideoTrimer";

class RecordingProgress : public TrimProgressListener {
public:
    void onTrimProgress(int percent) override { values.push_back(percent); }
    std::vector<int> values;
};

struct TrimRun {
    int prepared = -100;
    int trimmed = -100;
    bool copies = false;
    int64_t copied = 0;
    int64_t encoded = 0;
    int64_t audio = 0;
};

TrimRun trim(const std::string& in, const std::string& out, int64_t startMs, int64_t endMs, int mode,
             TrimProgressListener* progress = nullptr, bool keepCodec = false) {
    TrimRun r;
    // The trimmer keeps copies of the paths: the caller's buffers are
    // scribbled over once it is constructed.
    std::vector<char> inBuf(in.c_str(), in.c_str() + in.size() + 1);
    std::vector<char> outBuf(out.c_str(), out.c_str() + out.size() + 1);
    VideoTrimer trimer(inBuf.data(), outBuf.data());
    std::fill(inBuf.begin(), inBuf.end() - 1, 'z');
    std::fill(outBuf.begin(), outBuf.end() - 1, 'z');
    trimer.setProgressListener(progress);
    trimer.setKeepVideoCodec(keepCodec);
    trimer.setTrimParam(startMs * 1000, endMs * 1000);
    r.prepared = trimer.prepare();
    if (r.prepared != 0) {
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
// Keep and cut on fixtures of every kind of input.

struct Input {
    const char* name;
    bool copiable;     // MPEG-4 Part 2 without B-frames
    bool hasAudio;
};

class TrimEveryInput : public ::testing::TestWithParam<Input> {
protected:
    std::string input() const { return fixture(GetParam().name); }
    ScratchDir dir;
};

// 1100 ms is frame 33 exactly, 3500 ms frame 105; key frames every 30.
// Keeping the range, then cutting it out and joining the rest.
TEST_P(TrimEveryInput, KeepsOrCutsTheRangeFrameAccuratelyAndDecodesCleanly) {
    const std::string hashBefore = fileHash(input());
    for (int mode : {0, 1}) {
        SCOPED_TRACE(mode == 0 ? "keep" : "cut");
        std::string out = dir.file(std::to_string(mode) + ".mp4");
        TrimRun r = trim(input(), out, 1100, 3500, mode);
        ASSERT_EQ(r.prepared, 0);
        ASSERT_EQ(r.trimmed, 0);
        EXPECT_EQ(ffmpegDecodeComplaints(out), "");
        MediaReport m = inspectMedia(out);
        ASSERT_TRUE(m.opened);
        EXPECT_EQ(m.videoCodec, AV_CODEC_ID_MPEG4);
        EXPECT_EQ(m.rotation, 0);
        EXPECT_EQ(m.frameRate.num * 1, 30 * m.frameRate.den);
        EXPECT_EQ(m.frames, mode == 0 ? run(33, 105) : concat(run(0, 32), run(105, 299)));
        EXPECT_NEAR(m.videoSeconds, mode == 0 ? 2.4 : 10.0 - 2.4, 1.0 / 30 + 1e-6);
        // A copiable input is re-encoded up to the key frame at 60 (keep), or
        // from the end to the key frame at 120 (cut); any other in full.
        EXPECT_EQ(r.encoded, GetParam().copiable ? (mode == 0 ? 60 - 33 : 120 - 105) : static_cast<int64_t>(m.frames.size()));
        EXPECT_EQ(r.copied + r.encoded, static_cast<int64_t>(m.frames.size()));
        if (GetParam().hasAudio) {
            expectAudioMatchesVideo(m);
            if (mode == 0) {
                EXPECT_EQ(r.audio, static_cast<int64_t>(m.audioSeconds / m.longestAudioPacket + 0.5));
            }
        } else {
            EXPECT_EQ(m.audioStreams, 0);
        }
    }
    EXPECT_EQ(fileHash(input()), hashBefore) << "the input must stay untouched";
}

INSTANTIATE_TEST_SUITE_P(Fixtures, TrimEveryInput,
                         ::testing::Values(Input{"h264_aac.mp4", false, true}, Input{"mpeg4.mp4", true, true},
                                           Input{"mpeg4_bframes.mp4", false, true},
                                           Input{"video_only.mp4", false, false},
                                           Input{"odd_size.mp4", true, true},
                                           Input{"vp9.webm", false, true}, Input{"late_start.ts", false, true}),
                         FixtureName());

// ---------------------------------------------------------------------------
// Ranges at the ends of the file, and ranges kept with the input's video
// codec. Key frames every 30 frames; in the open-GOP clip only the first is
// an IDR picture. Inputs that cannot keep their codec fall back to MPEG-4 and
// say why.

struct RangeCase {
    const char* name;
    const char* file;
    int mode;
    int startMs;
    int endMs;
    std::vector<int> frames;
    bool keepCodec;
    int64_t encoded;       // frames re-encoded when the codec is kept
    const char* fallBack;  // the reason logged, or null when the codec is kept
};

class TrimRange : public ::testing::TestWithParam<RangeCase> {};

// With the codec kept, copied frames are the input's pictures exactly and
// re-encoded ones close to them.
TEST_P(TrimRange, KeepsExactlyTheFramesOfTheRangeAndDecodesCleanly) {
    const RangeCase& c = GetParam();
    ScratchDir dir;
    std::string out = dir.file("range.mp4");
    LogCapture log;
    TrimRun r = trim(fixture(c.file), out, c.startMs, c.endMs, c.mode, nullptr, c.keepCodec);
    ASSERT_EQ(r.trimmed, 0);
    EXPECT_EQ(ffmpegDecodeComplaints(out), "");
    MediaReport m = inspectMedia(out, true, c.keepCodec);
    MediaReport source = inspectMedia(fixture(c.file), true, c.keepCodec);
    EXPECT_EQ(m.frames, c.frames);
    EXPECT_EQ(m.rotation, source.rotation);
    expectAudioMatchesVideo(m);
    if (c.fallBack != nullptr) {
        EXPECT_TRUE(log.contains(kTag, std::string("keep codec: re-encoding to MPEG-4 instead: ") + c.fallBack));
    }
    if (!c.keepCodec || c.fallBack != nullptr) {
        EXPECT_EQ(m.videoCodec, AV_CODEC_ID_MPEG4);
        return;
    }
    EXPECT_EQ(m.videoCodec, source.videoCodec);
    EXPECT_EQ(r.encoded, c.encoded);
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

RangeCase ends(const char* name, const char* file, int mode, int startMs, int endMs, std::vector<int> frames) {
    return RangeCase{name, file, mode, startMs, endMs, std::move(frames), false, 0, nullptr};
}

RangeCase kept(const char* name, const char* file, int mode, int startMs, int endMs, std::vector<int> frames,
               int64_t encoded, const char* fallBack = nullptr) {
    return RangeCase{name, file, mode, startMs, endMs, std::move(frames), true, encoded, fallBack};
}

INSTANTIATE_TEST_SUITE_P(
    Cuts, TrimRange,
    ::testing::Values(
        ends("keep_past_the_end_h264", "h264_aac.mp4", 0, 9000, 20000, run(270, 299)),
        ends("keep_past_the_end_mpeg4", "mpeg4.mp4", 0, 9010, 20000, run(271, 299)),
        ends("keep_from_zero_mpeg4", "mpeg4.mp4", 0, 0, 1990, run(0, 59)),
        ends("cut_the_head_h264", "h264_aac.mp4", 1, 0, 2000, run(60, 299)),
        ends("cut_the_head_mpeg4", "mpeg4.mp4", 1, 0, 2010, run(61, 299)),
        ends("cut_the_tail_h264", "h264_aac.mp4", 1, 8000, 20000, run(0, 239)),
        ends("cut_the_tail_mpeg4", "mpeg4.mp4", 1, 8010, 20000, run(0, 240)),
        ends("cut_one_frame_mpeg4", "mpeg4.mp4", 1, 1990, 2010, concat(run(0, 59), run(61, 299))),
        // Re-encoded: from the start to the IDR picture at 60, and 103-105,
        // which depend on a picture after 105.
        kept("h264_keep_between_keys", "h264_aac.mp4", 0, 1100, 3500, run(33, 105), 27 + 3),
        kept("h264_keep_on_keys", "h264_aac.mp4", 0, 1000, 3000, run(30, 90), 0),
        kept("h264_cut_between_keys", "h264_aac.mp4", 1, 1100, 3500, concat(run(0, 32), run(105, 299)), 2 + 15),
        kept("h264_rot90_cut_on_keys", "h264_aac_rot90.mp4", 1, 1000, 2000, concat(run(0, 29), run(60, 299)), 0),
        kept("h264_open_gop", "h264_open_gop.mp4", 0, 1100, 2500, run(33, 75), 43),
        kept("hevc", "hevc.mp4", 1, 1100, 3500, concat(run(0, 32), run(105, 299)), 0,
             "HEVC input (re-encoded frames cannot get parameter set ids of their own)"),
        kept("mpeg4_bframes", "mpeg4_bframes.mp4", 0, 1100, 3500, run(33, 105), 0, "mpeg4 input"),
        kept("vp9", "vp9.webm", 0, 1100, 3500, run(33, 105), 0, "vp9 input")),
    [](const ::testing::TestParamInfo<RangeCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Copying MPEG-4 Part 2 packets: from the first key frame at or after a cut,
// every packet is the input's byte for byte. Where the input's configuration
// differs from the encoder's, a copied run that follows encoded frames may
// start with the input's header in front; where it matches, nothing is added.

struct CopyCase {
    const char* name;
    const char* input;  // the fixture, or a variant made from it
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
    std::string in = fixture("mpeg4.mp4");
    std::string ff = "ffmpeg -nostdin -v error -y -i " + shellQuote(in) + " -map 0 -c:a copy -c:v mpeg4 -q:v 3 -g 30 -bf 0 ";
    if (std::string(c.input) == "like_encoder") {
        // Configured like the trimmer's encoder: slice threads (so resync
        // markers), 30 ticks a second.
        in = dir.file("in.mp4");
        ASSERT_TRUE(runTool(ff + "-threads 6 " + shellQuote(in)));
    } else if (std::string(c.input) == "ntsc") {
        // 29.97 frames per second, time resolution 30000 against the encoder's 30.
        in = dir.file("in.mp4");
        ASSERT_TRUE(runTool(ff + "-vf 'setpts=N*1001/(30000*TB)' -r 30000/1001 -fflags +bitexact " + shellQuote(in)));
    }
    std::string out = dir.file("copy.mp4");
    LogCapture log;
    TrimRun r = trim(in, out, c.startMs, c.endMs, c.mode);
    ASSERT_EQ(r.trimmed, 0);
    EXPECT_TRUE(r.copies);
    EXPECT_EQ(r.encoded, c.encoded);
    EXPECT_EQ(ffmpegDecodeComplaints(out), "");
    EXPECT_EQ(log.contains(kTag, "video packets copied where possible, headers in the container"), !c.headerInFront);
    MediaReport source = inspectMedia(in, false);
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
    ::testing::Values(CopyCase{"keep_on_key_frames", "mpeg4", 1000, 3500, 0, run(30, 105), 0, true},
                      CopyCase{"cut_on_key_frames", "mpeg4", 1100, 2000, 1, concat(run(0, 32), run(60, 299)), 0, true},
                      CopyCase{"keep_between_key_frames", "mpeg4", 1100, 3500, 0, run(33, 105), 60 - 33, true},
                      CopyCase{"input_like_the_encoder", "like_encoder", 1100, 3500, 0, run(33, 105), 27, false},
                      // 1100 ms lies just after frame 32 (1067.7 ms), 3500 ms
                      // just before frame 105 (3503.5 ms).
                      CopyCase{"keep_other_time_resolution", "ntsc", 1100, 3500, 0, run(33, 104), 27, true},
                      CopyCase{"cut_other_time_resolution", "ntsc", 1100, 3500, 1, concat(run(0, 32), run(105, 299)),
                               120 - 105, true}),
    [](const ::testing::TestParamInfo<CopyCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Rotation, modes, life cycle, logs, progress.

// Whatever times the Java side passes: no overflow, no repeated frames.
TEST(TrimOutput, ExtremeAndReversedTimesKeepTheWholeFile) {
    ScratchDir dir;
    struct Case {
        int64_t startUs;
        int64_t endUs;
        int mode;
    } cases[] = {{-5000000, INT64_MAX, 0}, {INT64_MIN, INT64_MAX, 0}, {INT64_MAX, INT64_MIN, 1},
                 {5000000, 2000000, 1}};
    for (const Case& c : cases) {
        std::string out = dir.file("whole.mp4");
        VideoTrimer trimer(fixture("mpeg4.mp4").c_str(), out.c_str());
        trimer.setTrimParam(c.startUs, c.endUs);
        ASSERT_EQ(trimer.prepare(), 0);
        EXPECT_EQ(trimer.startTrim(c.mode), 0);
        trimer.release();
        EXPECT_EQ(inspectMedia(out).frames, run(0, 299)) << c.startUs << " " << c.endUs << " mode " << c.mode;
    }
}

TEST(TrimOutput, OtherModesWriteAnEmptyButCompleteFile) {
    ScratchDir dir;
    std::string out = dir.file("empty.mp4");
    TrimRun r = trim(fixture("mpeg4.mp4"), out, 1000, 2000, 2);
    EXPECT_EQ(r.trimmed, 0);
    EXPECT_EQ(r.copied + r.encoded + r.audio, 0);
    MediaReport m = inspectMedia(out, false);
    ASSERT_TRUE(m.opened) << "header and trailer make a readable file";
    EXPECT_TRUE(m.videoPackets.empty());
    EXPECT_EQ(m.audioSeconds, 0);
}

TEST(TrimOutput, ReplacesALongerExistingFileCompletely) {
    ScratchDir dir;
    std::string out = dir.file("old.mp4");
    {
        std::ofstream f(out, std::ios::binary);
        std::string junk(8 * 1024 * 1024, 'x');
        f << junk;
    }
    ASSERT_EQ(trim(fixture("h264_aac.mp4"), out, 1000, 2000, 0).trimmed, 0);
    struct stat st;
    ASSERT_EQ(stat(out.c_str(), &st), 0);
    EXPECT_LT(st.st_size, 4 * 1024 * 1024);
    EXPECT_EQ(ffmpegDecodeComplaints(out), "");
}

TEST(TrimLifecycle, StartTrimNeedsAPreparedTrimAndRunsOnce) {
    ScratchDir dir;
    std::string out = dir.file("once.mp4");
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
}

TEST(TrimProgress, RisesToOneHundred) {
    ScratchDir dir;
    RecordingProgress progress;
    ASSERT_EQ(trim(fixture("h264_aac.mp4"), dir.file("p.mp4"), 500, 9000, 1, &progress).trimmed, 0);
    ASSERT_GE(progress.values.size(), 10u);
    EXPECT_TRUE(std::is_sorted(progress.values.begin(), progress.values.end()));
    EXPECT_EQ(std::adjacent_find(progress.values.begin(), progress.values.end()), progress.values.end());
    EXPECT_GE(progress.values.front(), 0);
    EXPECT_EQ(progress.values.back(), 100);
}

// ---------------------------------------------------------------------------
// prepare() failures from real causes. Not reachable from a file: -2 (FFmpeg
// 5.1's stream probing reports success even when it finds nothing), -6 (the
// MPEG-4 encoder is part of every FFmpeg build) and -8 (copying stream
// parameters fails only when memory runs out). -9 (audio the output cannot
// hold) is left to the trim command's error table.

// An MKV whose FFV1 video carries a configuration record the decoder
// rejects, next to a valid PCM audio stream.
bool makeBrokenFfv1(const std::string& path) {
    AVFormatContext* raw = nullptr;
    if (avformat_alloc_output_context2(&raw, nullptr, "matroska", path.c_str()) < 0) {
        return false;
    }
    ScopedAVOutputContext out(raw);
    AVStream* v = avformat_new_stream(raw, nullptr);
    v->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    v->codecpar->codec_id = AV_CODEC_ID_FFV1;
    v->codecpar->width = 64;
    v->codecpar->height = 48;
    v->codecpar->extradata = static_cast<uint8_t*>(av_mallocz(64 + AV_INPUT_BUFFER_PADDING_SIZE));
    v->codecpar->extradata_size = 64;
    v->time_base = AVRational{1, 1000};
    AVStream* a = avformat_new_stream(raw, nullptr);
    a->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
    a->codecpar->codec_id = AV_CODEC_ID_PCM_S16LE;
    a->codecpar->sample_rate = 8000;
    a->codecpar->format = AV_SAMPLE_FMT_S16;
    av_channel_layout_default(&a->codecpar->ch_layout, 1);
    a->time_base = AVRational{1, 1000};
    if (avio_open(&raw->pb, path.c_str(), AVIO_FLAG_WRITE) < 0 || avformat_write_header(raw, nullptr) < 0) {
        return false;
    }
    for (int i = 0; i < 20; ++i) {
        ScopedAVPacket p = makeScopedAVPacket();
        av_new_packet(p.get(), 1600);
        memset(p->data, 0, 1600);
        p->stream_index = a->index;
        p->pts = p->dts = av_rescale_q(i * 100, AVRational{1, 1000}, a->time_base);
        p->duration = av_rescale_q(100, AVRational{1, 1000}, a->time_base);
        if (av_write_frame(raw, p.get()) < 0) {
            return false;
        }
    }
    return av_write_trailer(raw) == 0;
}

struct Failure {
    const char* name;
    int code;
    const char* message;
};

class TrimPrepareFailure : public ::testing::TestWithParam<Failure> {
protected:
    // Sets up the cause; returns the input and output paths to use.
    std::pair<std::string, std::string> cause(const std::string& name) {
        std::string out = dir.file("out.mp4");
        std::string ff = "ffmpeg -nostdin -v error -y ";
        if (name == "missing_input") {
            return {dir.file("nothing_here.mp4"), out};
        }
        if (name == "audio_only") {
            return {fixture("audio_only.m4a"), out};
        }
        if (name == "undecodable_video") {
            std::string in = dir.file("broken_ffv1.mkv");
            EXPECT_TRUE(makeBrokenFfv1(in));
            return {in, out};
        }
        if (name == "output_is_input") {
            std::string in = dir.file("same.mp4");
            runTool("cp " + shellQuote(fixture("mpeg4.mp4")) + " " + shellQuote(in));
            return {in, in};
        }
        if (name == "too_wide_for_mpeg4") {
            std::string in = dir.file("wide.mkv");
            runTool(ff + "-f lavfi -i color=s=8192x16:d=0.2 -c:v ffv1 " + shellQuote(in));
            return {in, out};
        }
        ADD_FAILURE() << "unknown cause " << name;
        return {"", ""};
    }
    ScratchDir dir;
};

TEST_P(TrimPrepareFailure, ReturnsItsCodeAndMessage) {
    auto paths = cause(GetParam().name);
    std::string hashBefore = fileHash(paths.first);
    LogCapture log;
    VideoTrimer trimer(paths.first.c_str(), paths.second.c_str());
    trimer.setTrimParam(0, 500000);
    EXPECT_EQ(trimer.prepare(), GetParam().code);
    EXPECT_TRUE(log.contains(kTag, GetParam().message)) << GetParam().message;
    EXPECT_EQ(trimer.startTrim(0), -1);
    trimer.release();
    trimer.release();
    EXPECT_EQ(fileHash(paths.first), hashBefore);
}

INSTANTIATE_TEST_SUITE_P(
    Causes, TrimPrepareFailure,
    ::testing::Values(Failure{"missing_input", -1, "Couldn't open input stream"},
                      Failure{"audio_only", -3, "can't find any video stream. "},
                      Failure{"undecodable_video", -4, "Could not open encoder. "},
                      Failure{"output_is_input", -5, "Failed to open output file!"},
                      Failure{"too_wide_for_mpeg4", -7, "Failed to open encoder!  "}),
    [](const ::testing::TestParamInfo<Failure>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kavra::test
