// Every kavra subcommand answers what it cannot do with one line on stderr,
// "kavra: ..." and exit status 1, and leaves the output's directory as it
// was, with nothing half-written in it. trim writes under a temporary name,
// so a file already under its output name stays unchanged. Inputs that are not regular files (a directory, a
// FIFO nobody writes to) are refused before anything opens them: a FIFO
// would block the open for ever.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <iterator>

#include "ToolJson.h"
#include "support/Fixtures.h"
#include "support/ScratchDir.h"

namespace kavra::test {
namespace {

struct BadCall {
    const char* label;
    std::string args;      // {OUT}: a file in the test's directory; {DIR}: that directory; {FIFO}: a FIFO there
    std::string mentions;  // what the line must name, if anything
};

std::string clip(const char* name) { return shellQuote(fixture(name)); }

void replace(std::string& text, const std::string& token, const std::string& by) {
    for (size_t at = text.find(token); at != std::string::npos; at = text.find(token, at + by.size())) {
        text.replace(at, token.size(), by);
    }
}

class CommandErrors : public ::testing::TestWithParam<BadCall> {};

TEST_P(CommandErrors, OneLineOnStderrExitStatusOneAndNoOutput) {
    ScratchDir dir;
    const std::string out = dir.file("out.img");
    const std::string fifo = dir.file("in.mp4");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    const bool trim = GetParam().args.rfind("trim ", 0) == 0;
    if (trim) {
        std::ofstream(out) << "previous content";
    }
    std::vector<std::string> before = dir.entries();
    std::string args = GetParam().args;
    std::string mentions = GetParam().mentions;
    replace(args, "{OUT}", shellQuote(out));
    replace(args, "{DIR}", shellQuote(dir.path()));
    replace(args, "{FIFO}", shellQuote(fifo));
    replace(mentions, "{FIFO}", fifo);
    CommandResult r = kavra(args + " 2>&1 >/dev/null");  // standard error only
    EXPECT_EQ(r.status, 1) << r.output;
    EXPECT_EQ(r.output.rfind("kavra: ", 0), 0u) << r.output;
    EXPECT_EQ(r.output.find('\n'), r.output.size() - 1) << "one line: " << r.output;
    EXPECT_NE(r.output.find(mentions), std::string::npos) << r.output;
    std::vector<std::string> after = dir.entries();
    std::sort(before.begin(), before.end());
    std::sort(after.begin(), after.end());
    EXPECT_EQ(after, before);
    if (trim) {
        std::ifstream kept(out);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(kept), std::istreambuf_iterator<char>()),
                  "previous content");
    }
}

const std::string kClip = clip("h264_aac.mp4");
const std::string kDamaged = clip("damaged_sample_table.mp4");

INSTANTIATE_TEST_SUITE_P(
    Cases, CommandErrors,
    ::testing::Values(
        BadCall{"ProbeMissingFile", "probe " + clip("does_not_exist.mp4"), fixture("does_not_exist.mp4")},
        BadCall{"ProbeNotMedia", "probe " + clip("random.bin"), fixture("random.bin")},
        BadCall{"ProbeNoMoov", "probe " + clip("truncated_nomoov.mp4"), fixture("truncated_nomoov.mp4")},
        BadCall{"ProbeDirectory", "probe " + shellQuote(fixtureDir()), fixtureDir()},
        BadCall{"ProbeNoArguments", "probe", ""},
        BadCall{"DecodeNotMedia", "decode " + clip("random.bin"), ""},
        BadCall{"DecodeNoMoov", "decode " + clip("truncated_nomoov.mp4"), ""},
        BadCall{"DecodeCodecForMpeg4", "decode " + clip("mpeg4.mp4") + " --video-decoder codec", ""},
        BadCall{"DecodeUnknownDecoder", "decode " + kClip + " --video-decoder magic", ""},
        BadCall{"DecodeNoArguments", "decode", ""},
        // Reads fail for ever from about 4 s on: not a success on half the file.
        BadCall{"DecodeDamaged", "decode " + kDamaged, ""},
        BadCall{"DecodeDamagedWithFFmpeg", "decode " + kDamaged + " --video-decoder ffmpeg", ""},
        BadCall{"PlayBadScript", "play --headless --json " + kClip + " --script '100 jump 5'", ""},
        BadCall{"PlayNoSuchTrack", "play --headless --json " + clip("two_audio.mp4") + " --audio-track 7", ""},
        BadCall{"ThumbsAudioOnly", "thumbs " + clip("audio_only.m4a") + " --count 3 -o {OUT}", ""},
        BadCall{"ThumbsNotMedia", "thumbs " + clip("random.bin") + " --count 3 -o {OUT}", ""},
        BadCall{"ThumbsCountZero", "thumbs " + kClip + " --count 0 -o {OUT}", ""},
        BadCall{"ThumbsCountMissing", "thumbs " + kClip + " -o {OUT}", ""},
        BadCall{"ThumbsBadSize", "thumbs " + kClip + " --count 2 --size 160 -o {OUT}", ""},
        BadCall{"ThumbsUnwritable", "thumbs " + kClip + " --count 2 -o /no/such/dir/sheet.png", ""},
        BadCall{"ThumbsDamaged", "thumbs " + kDamaged + " --count 10 -o {OUT}", ""},
        BadCall{"KeyframePastTheEnd", "keyframe " + kClip + " --at 10.5s -o {OUT}", ""},
        BadCall{"KeyframeBadTime", "keyframe " + kClip + " --at soon -o {OUT}", ""},
        BadCall{"SnapshotNoMoov", "snapshot " + clip("truncated_nomoov.mp4") + " --at 1s -o {OUT}", ""},
        BadCall{"SnapshotUnwritable", "snapshot " + kClip + " --at 1s -o /no/such/dir/s.jpg", ""},
        BadCall{"SnapshotNoTime", "snapshot " + kClip + " -o {OUT}", ""},
        BadCall{"SnapshotDamaged", "snapshot " + kDamaged + " --at 4.5s -o {OUT}", ""},
        BadCall{"TrimPastTheEnd", "trim " + kClip + " {OUT} --from 9s --to 12s", "is outside the file"},
        BadCall{"TrimEndBeforeStart", "trim " + kClip + " {OUT} --from 3s --to 2s", "is not after the start"},
        BadCall{"TrimBadTime", "trim " + kClip + " {OUT} --from soon --to 2s", "bad time 'soon'"},
        BadCall{"TrimNoEnd", "trim " + kClip + " {OUT} --from 1s", "--from and --to are required"},
        BadCall{"TrimAudioOnly", "trim " + clip("audio_only.m4a") + " {OUT} --from 1s --to 2s", "no decodable video"},
        BadCall{"TrimUndecodable", "trim " + clip("ffv1_bad_config.mkv") + " {OUT} --from 0 --to 0.2s",
                "cannot open the video decoder"},
        BadCall{"TrimTooLargeForMpeg4", "trim " + clip("h264_8192x8192.mp4") + " {OUT} --from 0 --to 1ms",
                "cannot open the MPEG-4 encoder"},
        // Fails after the output was opened and its header written.
        BadCall{"TrimAudioMp4CannotHold", "trim " + clip("h264_pcm.mkv") + " {OUT} --from 0.5s --to 1s",
                "the output cannot hold these streams"},
        // Reading stops at damage inside the range: a short result is not kept.
        BadCall{"TrimDamaged", "trim " + kDamaged + " {OUT} --from 3s --to 6s", "the file is damaged"},
        BadCall{"TrimNoOutputDir", "trim " + kClip + " {DIR}/missing/out.mp4 --from 1s --to 2s", "No such file"},
        BadCall{"TrimOutputIsADirectory", "trim " + kClip + " {DIR} --from 1s --to 2s", "is a directory"},
        BadCall{"ProbeFifo", "probe {FIFO}", "{FIFO}: not a regular file"},
        BadCall{"DecodeFifo", "decode {FIFO}", "{FIFO}: not a regular file"},
        BadCall{"PlayFifo", "play --headless --json {FIFO}", "{FIFO}: not a regular file"},
        BadCall{"ThumbsFifo", "thumbs {FIFO} --count 2 -o {OUT}", "{FIFO}: not a regular file"},
        BadCall{"KeyframeFifo", "keyframe {FIFO} --at 1s -o {OUT}", "{FIFO}: not a regular file"},
        BadCall{"SnapshotFifo", "snapshot {FIFO} --at 1s -o {OUT}", "{FIFO}: not a regular file"},
        BadCall{"TrimFifo", "trim {FIFO} {OUT} --from 1s --to 2s", "{FIFO}: not a regular file"}),
    [](const auto& info) { return std::string(info.param.label); });

}  // namespace
}  // namespace kavra::test
