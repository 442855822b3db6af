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
        if (GetParam().copiable) {
            // Keep: re-encoded up to the key frame at 60, copied from there.
            // Cut: only the frames from the end to the next key frame (120)
            // are encoded.
            EXPECT_EQ(r.encoded, mode == 0 ? 60 - 33 : 120 - 105);
            EXPECT_EQ(r.copied, mode == 0 ? 105 - 60 + 1 : 33 + 300 - 120);
        } else {
            EXPECT_EQ(r.copied, 0);
            if (mode == 0) {
                EXPECT_EQ(r.encoded, 105 - 33 + 1);
            }
        }
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
// Keeping the input's video codec. Key frames every 30 frames; in the open-GOP
// clip only the first is an IDR picture. Inputs that cannot keep their codec
// fall back to MPEG-4 and say why.

struct KeepCodecCase {
    const char* name;
    const char* file;
    int mode;
    int startMs;
    int endMs;
    std::vector<int> frames;
    int64_t encoded;       // frames re-encoded
    const char* fallBack;  // the reason logged, or null when the codec is kept
};

class TrimKeepCodec : public ::testing::TestWithParam<KeepCodecCase> {};

TEST_P(TrimKeepCodec, CopiesExactPicturesFromTheIdrAfterEachCutAndReencodesTheRestClosely) {
    const KeepCodecCase& c = GetParam();
    ScratchDir dir;
    std::string out = dir.file("keep.mp4");
    LogCapture log;
    TrimRun r = trim(fixture(c.file), out, c.startMs, c.endMs, c.mode, nullptr, true);
    ASSERT_EQ(r.trimmed, 0);
    EXPECT_EQ(ffmpegDecodeComplaints(out), "");
    MediaReport m = inspectMedia(out, true, true);
    MediaReport source = inspectMedia(fixture(c.file), true, true);
    EXPECT_EQ(m.frames, c.frames);
    expectAudioMatchesVideo(m);
    if (c.fallBack != nullptr) {
        EXPECT_EQ(m.videoCodec, AV_CODEC_ID_MPEG4);
        EXPECT_TRUE(log.contains(kTag, std::string("keep codec: re-encoding to MPEG-4 instead: ") + c.fallBack));
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

INSTANTIATE_TEST_SUITE_P(
    Cuts, TrimKeepCodec,
    ::testing::Values(
        KeepCodecCase{"h264_keep_between_keys", "h264_aac.mp4", 0, 1100, 3500, run(33, 105), 27 + 3, nullptr},
        KeepCodecCase{"h264_keep_on_keys", "h264_aac.mp4", 0, 1000, 3000, run(30, 90), 0, nullptr},
        KeepCodecCase{"h264_cut_between_keys", "h264_aac.mp4", 1, 1100, 3500, concat(run(0, 32), run(105, 299)),
                      2 + 15, nullptr},
        KeepCodecCase{"h264_cut_on_keys", "h264_aac.mp4", 1, 1000, 2000, concat(run(0, 29), run(60, 299)), 0,
                      nullptr},
        KeepCodecCase{"h264_open_gop", "h264_open_gop.mp4", 0, 1100, 2500, run(33, 75), 43, nullptr},
        KeepCodecCase{"hevc", "hevc.mp4", 1, 1100, 3500, concat(run(0, 32), run(105, 299)), 0,
                      "HEVC input (re-encoded frames cannot get parameter set ids of their own)"},
        KeepCodecCase{"mpeg4_bframes", "mpeg4_bframes.mp4", 0, 1100, 3500, run(33, 105), 0, "mpeg4 input"},
        KeepCodecCase{"vp9", "vp9.webm", 0, 1100, 3500, run(33, 105), 0, "vp9 input"}),
    [](const ::testing::TestParamInfo<KeepCodecCase>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Ranges that touch the ends of the file.

struct EdgeRange {
    const char* name;
    const char* file;
    int mode;
    int startMs;
    int endMs;
    int firstKept[2];   // frame ranges kept, {-1, -1} for none
    int secondKept[2];
};

class TrimEdgeRange : public ::testing::TestWithParam<EdgeRange> {};

TEST_P(TrimEdgeRange, KeepsExactlyTheFramesOutsideOrInsideTheRange) {
    const EdgeRange& e = GetParam();
    ScratchDir dir;
    std::string out = dir.file("edge.mp4");
    TrimRun r = trim(fixture(e.file), out, e.startMs, e.endMs, e.mode);
    ASSERT_EQ(r.trimmed, 0);
    EXPECT_EQ(ffmpegDecodeComplaints(out), "");
    std::vector<int> expected = run(e.firstKept[0], e.firstKept[1]);
    if (e.secondKept[0] >= 0) {
        expected = concat(expected, run(e.secondKept[0], e.secondKept[1]));
    }
    MediaReport m = inspectMedia(out);
    EXPECT_EQ(m.frames, expected);
    expectAudioMatchesVideo(m);
}

INSTANTIATE_TEST_SUITE_P(
    Ends, TrimEdgeRange,
    ::testing::Values(EdgeRange{"keep_past_the_end_h264", "h264_aac.mp4", 0, 9000, 20000, {270, 299}, {-1, -1}},
                      EdgeRange{"keep_past_the_end_mpeg4", "mpeg4.mp4", 0, 9010, 20000, {271, 299}, {-1, -1}},
                      EdgeRange{"keep_from_zero_mpeg4", "mpeg4.mp4", 0, 0, 1990, {0, 59}, {-1, -1}},
                      EdgeRange{"cut_the_head_h264", "h264_aac.mp4", 1, 0, 2000, {60, 299}, {-1, -1}},
                      EdgeRange{"cut_the_head_mpeg4", "mpeg4.mp4", 1, 0, 2010, {61, 299}, {-1, -1}},
                      EdgeRange{"cut_the_tail_h264", "h264_aac.mp4", 1, 8000, 20000, {0, 239}, {-1, -1}},
                      EdgeRange{"cut_the_tail_mpeg4", "mpeg4.mp4", 1, 8010, 20000, {0, 240}, {-1, -1}},
                      EdgeRange{"cut_one_frame_mpeg4", "mpeg4.mp4", 1, 1990, 2010, {0, 59}, {61, 299}}),
    [](const ::testing::TestParamInfo<EdgeRange>& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// Copying MPEG-4 Part 2 packets.

std::vector<Packet> inputVideoPackets(const std::string& path) { return inspectMedia(path, false).videoPackets; }

// Input packets of frames first..last (pts = frame * 512 in the fixtures).
std::vector<Packet> framesOf(const std::vector<Packet>& packets, int first, int last) {
    std::vector<Packet> out;
    for (const Packet& p : packets) {
        if (p.pts >= first * 512LL && p.pts <= last * 512LL) {
            out.push_back(p);
        }
    }
    return out;
}

bool endsWith(const std::vector<uint8_t>& data, const std::vector<uint8_t>& tail) {
    return data.size() >= tail.size() && std::equal(tail.begin(), tail.end(), data.end() - static_cast<long>(tail.size()));
}

// Ranges whose every edge falls on a key frame: nothing is encoded, every
// packet is the input's, byte for byte, with its key flag.
TEST(TrimMpeg4Copy, RangesOnKeyFramesCopyEveryPacketByteForByte) {
    const std::vector<Packet> source = inputVideoPackets(fixture("mpeg4.mp4"));
    struct Case {
        int startMs, endMs, mode;
        std::vector<std::pair<int, int>> kept;
    } cases[] = {{1000, 3500, 0, {{30, 105}}}, {1100, 2000, 1, {{0, 32}, {60, 299}}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.mode);
        ScratchDir dir;
        std::string out = dir.file("copy.mp4");
        TrimRun r = trim(fixture("mpeg4.mp4"), out, c.startMs, c.endMs, c.mode);
        ASSERT_EQ(r.trimmed, 0);
        EXPECT_TRUE(r.copies);
        EXPECT_EQ(r.encoded, 0);
        EXPECT_EQ(ffmpegDecodeComplaints(out), "");
        std::vector<Packet> expected;
        std::vector<int> frames;
        for (auto range : c.kept) {
            std::vector<Packet> part = framesOf(source, range.first, range.second);
            expected.insert(expected.end(), part.begin(), part.end());
            frames = concat(frames, run(range.first, range.second));
        }
        EXPECT_EQ(r.copied, static_cast<int64_t>(expected.size()));
        MediaReport m = inspectMedia(out);
        EXPECT_EQ(m.frames, frames);
        ASSERT_EQ(m.videoPackets.size(), expected.size());
        for (size_t i = 0; i < expected.size(); ++i) {
            ASSERT_EQ(m.videoPackets[i].data, expected[i].data) << "packet " << i;
            ASSERT_EQ(m.videoPackets[i].key, expected[i].key) << "packet " << i;
        }
    }
}

TEST(TrimMpeg4Copy, StartBetweenKeyFramesReencodesOnlyUpToTheNextKeyFrame) {
    ScratchDir dir;
    std::string in = fixture("mpeg4.mp4");
    std::string out = dir.file("mixed.mp4");
    TrimRun r = trim(in, out, 1100, 3500, 0);
    ASSERT_EQ(r.trimmed, 0);
    std::vector<Packet> source = inputVideoPackets(in);
    std::vector<Packet> copiedSource = framesOf(source, 60, 105);
    std::vector<Packet> encodedRange = framesOf(source, 33, 59);
    MediaReport m = inspectMedia(out);
    ASSERT_EQ(m.videoPackets.size(), encodedRange.size() + copiedSource.size());
    // Frames 33..59 are new pictures from the encoder, starting with a key frame.
    EXPECT_TRUE(m.videoPackets[0].key);
    for (size_t i = 0; i < encodedRange.size(); ++i) {
        EXPECT_NE(m.videoPackets[i].data, encodedRange[i].data) << "frame " << 33 + i << " should be re-encoded";
    }
    // From the key frame at 60 on, the input's packets; the first of them may
    // carry the input's configuration header in front.
    for (size_t i = 0; i < copiedSource.size(); ++i) {
        const Packet& got = m.videoPackets[encodedRange.size() + i];
        if (i == 0) {
            EXPECT_TRUE(endsWith(got.data, copiedSource[i].data));
            EXPECT_TRUE(got.key);
        } else {
            EXPECT_EQ(got.data, copiedSource[i].data) << "frame " << 60 + i;
        }
    }
}

// An MPEG-4 input configured like the trimmer's own encoder (several slice
// threads, so resync markers; 30 ticks a second): one header in the
// container serves both kinds of packets, and nothing is put in front of the
// copied ones.
TEST(TrimMpeg4Copy, InputConfiguredLikeTheEncoderIsCopiedWithoutExtraHeaders) {
    ScratchDir dir;
    std::string in = dir.file("like_encoder.mp4");
    ASSERT_TRUE(runTool("ffmpeg -nostdin -v error -y -i " + shellQuote(fixture("mpeg4.mp4")) +
                        " -map 0 -c:v mpeg4 -threads 6 -q:v 3 -g 30 -bf 0 -c:a copy " + shellQuote(in)));
    std::string out = dir.file("joined.mp4");
    LogCapture log;
    TrimRun r = trim(in, out, 1100, 3500, 0);
    ASSERT_EQ(r.trimmed, 0);
    EXPECT_TRUE(log.contains(kTag, "video packets copied where possible, headers in the container"));
    EXPECT_EQ(r.encoded, 27);
    EXPECT_EQ(ffmpegDecodeComplaints(out), "");
    MediaReport m = inspectMedia(out);
    EXPECT_EQ(m.frames, run(33, 105));
    std::vector<Packet> copiedSource = framesOf(inputVideoPackets(in), 60, 105);
    ASSERT_EQ(m.videoPackets.size(), 27 + copiedSource.size());
    for (size_t i = 0; i < copiedSource.size(); ++i) {
        EXPECT_EQ(m.videoPackets[27 + i].data, copiedSource[i].data) << "frame " << 60 + i;
    }
}

// An MPEG-4 input whose configuration does not match the encoder's (time
// resolution 30000 against 30) at a non-integer frame rate: the joined
// stream must still decode without the decoder having to guess, and the
// frames and the rate must be the input's.
TEST(TrimMpeg4Copy, InputOfAnotherTimeResolutionJoinsWithoutWarningsAtItsOwnRate) {
    ScratchDir dir;
    std::string input = dir.file("ntsc.mp4");
    ASSERT_TRUE(makeNtscMpeg4(fixture("mpeg4.mp4"), input));
    std::string keep = dir.file("keep.mp4");
    TrimRun r = trim(input, keep, 1100, 3500, 0);
    ASSERT_EQ(r.trimmed, 0);
    EXPECT_GT(r.copied, 0);
    EXPECT_GT(r.encoded, 0);
    EXPECT_EQ(ffmpegDecodeComplaints(keep), "");
    MediaReport m = inspectMedia(keep);
    // 1100 ms lies just after frame 32 (1067.7 ms) and 3500 ms just before
    // frame 105 (3503.5 ms).
    EXPECT_EQ(m.frames, run(33, 104));
    EXPECT_EQ(m.frameRate.num, 30000);
    EXPECT_EQ(m.frameRate.den, 1001);
    expectAudioMatchesVideo(m);

    std::string cut = dir.file("cut.mp4");
    r = trim(input, cut, 1100, 3500, 1);
    ASSERT_EQ(r.trimmed, 0);
    EXPECT_GT(r.encoded, 0);
    EXPECT_EQ(ffmpegDecodeComplaints(cut), "");
    m = inspectMedia(cut);
    EXPECT_EQ(m.frames, concat(run(0, 32), run(105, 299)));
    expectAudioMatchesVideo(m);
}

// ---------------------------------------------------------------------------
// Rotation, modes, life cycle, logs, progress.

TEST(TrimOutput, KeepsTheInputRotation) {
    ScratchDir dir;
    std::string out = dir.file("rot.mp4");
    ASSERT_EQ(trim(fixture("h264_aac_rot90.mp4"), out, 2000, 4000, 0).trimmed, 0);
    EXPECT_EQ(ffprobeRotation(fixture("h264_aac_rot90.mp4")), "-90");
    EXPECT_EQ(ffprobeRotation(out), "-90");
    MediaReport m = inspectMedia(out);
    EXPECT_EQ(m.rotation, 90);
    EXPECT_EQ(m.frames, run(60, 120));
}

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
// parameters fails only when memory runs out).

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
        if (name == "audio_mp4_cannot_hold") {
            std::string in = dir.file("pcm.mkv");
            runTool(ff + "-f lavfi -i testsrc2=s=160x120:d=1 -f lavfi -i sine=d=1 -c:v libx264 -c:a pcm_s16le " +
                    shellQuote(in));
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
                      Failure{"too_wide_for_mpeg4", -7, "Failed to open encoder!  "},
                      Failure{"audio_mp4_cannot_hold", -9, "write_header error"}),
    [](const ::testing::TestParamInfo<Failure>& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace kavra::test
