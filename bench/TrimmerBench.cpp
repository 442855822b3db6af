// Trimming 10 s out of the middle (25 s to 35 s) of the 60 s 1080p clips,
// timed against the ffmpeg tool doing the same cut in the same run:
//   copy     ffmpeg -ss 25 -to 35 -i IN -c copy OUT               (the floor)
//   reencode ffmpeg -ss 25 -to 35 -i IN -c:v mpeg4 -b:v 10M -qmin 3 -qmax 5
//            -g 30 -bf 0 -c:a copy OUT                            (full re-encode)
// The trimmer runs in-process (VideoTrimer) and as the `kavra trim` command
// (a process, like ffmpeg, that also probes its input and its result).
// The start (25 s) lies between key frames of both clips (every 2 s), so the
// MPEG-4 clip has one partial group of pictures re-encoded; the H.264 clip
// has every kept frame re-encoded, unless the trimmer keeps its codec
// (keep-codec run): then only the frames from 25 s to the next key frame are
// re-encoded, with H.264, and the rest is copied. That run also reports its
// output's bit rate against the source's.
//
// The clips come from: bash tests/fixtures/make_fixtures.sh FIXTURE_DIR
//   build/tests/set_display_rotation --bench
//
// After the runs the ratios are printed with their targets.

#include <android/log.h>
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <string>

#include "trimmer/VideoTrimer.h"

namespace {

const char* kMpeg4Clip = "bench_1080p_mpeg4.mp4";
const char* kH264Clip = "bench_1080p.mp4";

std::map<std::string, double>& meanSeconds() {
    static std::map<std::string, double> m;
    return m;
}

// Bit rates in kbit/s of the keep-codec output and of its source.
double gKeepCodecKbps = 0;
double gSourceKbps = 0;

double fileKbps(const std::string& path, double seconds) {
    std::error_code ec;
    auto size = std::filesystem::file_size(path, ec);
    return ec ? 0 : static_cast<double>(size) * 8 / 1000 / seconds;
}

std::string clipPath(const char* name) { return std::string(KAVRA_FIXTURE_DIR) + "/" + name; }

std::string scratchFile(const std::string& name) {
    const char* base = getenv("TMPDIR");
    return std::string(base != nullptr ? base : "/tmp") + "/kavra_trimbench_" + std::to_string(getpid()) + "_" + name;
}

std::string kavraTool() {
    std::error_code ec;
    auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return (self.parent_path().parent_path() / "kavra").string();
}

std::string quote(const std::string& s) { return "'" + s + "'"; }

bool haveClip(benchmark::State& state, const std::string& path) {
    if (access(path.c_str(), R_OK) != 0) {
        state.SkipWithError("benchmark clip missing: run make_fixtures.sh with --bench");
        return false;
    }
    return true;
}

// Runs `body` once per iteration, timing wall-clock time, and records the
// mean under `key`.
template <typename Body>
void timed(benchmark::State& state, const std::string& key, Body body) {
    double total = 0;
    int64_t n = 0;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        if (!body()) {
            state.SkipWithError("run failed");
            return;
        }
        auto t1 = std::chrono::steady_clock::now();
        double s = std::chrono::duration<double>(t1 - t0).count();
        state.SetIterationTime(s);
        total += s;
        ++n;
    }
    if (n > 0) {
        meanSeconds()[key] = total / static_cast<double>(n);
    }
}

void BM_TrimmerInProcess(benchmark::State& state, const char* clip, int mode, bool keepCodec) {
    std::string in = clipPath(clip);
    if (!haveClip(state, in)) {
        return;
    }
    std::string out = scratchFile("lib.mp4");
    int64_t copied = 0;
    int64_t encoded = 0;
    timed(state, std::string(keepCodec ? "keep:" : "trim:") + clip + ":" + std::to_string(mode), [&] {
        VideoTrimer trimer(in.c_str(), out.c_str());
        trimer.setKeepVideoCodec(keepCodec);
        trimer.setTrimParam(25000000, 35000000);
        if (trimer.prepare() != 0 || trimer.startTrim(mode) != 0) {
            return false;
        }
        copied = trimer.videoFramesCopied();
        encoded = trimer.videoFramesEncoded();
        trimer.release();
        return true;
    });
    state.counters["copied"] = static_cast<double>(copied);
    state.counters["encoded"] = static_cast<double>(encoded);
    if (keepCodec) {
        gKeepCodecKbps = fileKbps(out, 10);
        gSourceKbps = fileKbps(in, 60);
    }
    std::remove(out.c_str());
}

void BM_TrimmerCommand(benchmark::State& state, const char* clip) {
    std::string in = clipPath(clip);
    if (!haveClip(state, in)) {
        return;
    }
    std::string out = scratchFile("cli.mp4");
    std::string cmd = quote(kavraTool()) + " trim " + quote(in) + " " + quote(out) + " --from 25s --to 35s >/dev/null";
    timed(state, std::string("cli:") + clip, [&] { return system(cmd.c_str()) == 0; });
    std::remove(out.c_str());
}

void BM_FfmpegCopy(benchmark::State& state, const char* clip) {
    std::string in = clipPath(clip);
    if (!haveClip(state, in)) {
        return;
    }
    std::string out = scratchFile("copy.mp4");
    std::string cmd = "ffmpeg -nostdin -v error -y -ss 25 -to 35 -i " + quote(in) + " -c copy " + quote(out);
    timed(state, std::string("copy:") + clip, [&] { return system(cmd.c_str()) == 0; });
    std::remove(out.c_str());
}

void BM_FfmpegReencode(benchmark::State& state, const char* clip) {
    std::string in = clipPath(clip);
    if (!haveClip(state, in)) {
        return;
    }
    std::string out = scratchFile("reencode.mp4");
    std::string cmd = "ffmpeg -nostdin -v error -y -ss 25 -to 35 -i " + quote(in) +
                      " -c:v mpeg4 -b:v 10M -qmin 3 -qmax 5 -g 30 -bf 0 -c:a copy " + quote(out);
    timed(state, std::string("reencode:") + clip, [&] { return system(cmd.c_str()) == 0; });
    std::remove(out.c_str());
}

BENCHMARK_CAPTURE(BM_FfmpegCopy, mpeg4, kMpeg4Clip)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_CAPTURE(BM_TrimmerInProcess, mpeg4_keep, kMpeg4Clip, 0, false)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_CAPTURE(BM_TrimmerCommand, mpeg4, kMpeg4Clip)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_CAPTURE(BM_FfmpegReencode, mpeg4, kMpeg4Clip)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_TrimmerInProcess, mpeg4_cut, kMpeg4Clip, 1, false)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

BENCHMARK_CAPTURE(BM_FfmpegCopy, h264, kH264Clip)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_CAPTURE(BM_TrimmerInProcess, h264_keep, kH264Clip, 0, false)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_TrimmerInProcess, h264_keep_codec, kH264Clip, 0, true)
    ->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK_CAPTURE(BM_TrimmerCommand, h264, kH264Clip)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_FfmpegReencode, h264, kH264Clip)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(3);

void printRatio(const char* what, const std::string& a, const std::string& b, const char* target) {
    auto& m = meanSeconds();
    if (m.count(a) == 0 || m.count(b) == 0 || m[b] <= 0) {
        printf("  %-58s n/a (a run was skipped)\n", what);
        return;
    }
    printf("  %-58s %6.2fx   (%.0f ms / %.0f ms; target %s)\n", what, m[a] / m[b], m[a] * 1000, m[b] * 1000, target);
}

}  // namespace

int main(int argc, char** argv) {
    // The engine's log lines would only disturb the timing and the table.
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    std::string m = kMpeg4Clip;
    std::string h = kH264Clip;
    printf("\nRatios (mean wall-clock time, same run):\n");
    printRatio("MPEG-4 input: trimmer / ffmpeg copy", "trim:" + m + ":0", "copy:" + m, "<= 3");
    printRatio("MPEG-4 input: kavra trim command / ffmpeg copy", "cli:" + m, "copy:" + m, "<= 3");
    printRatio("MPEG-4 input: ffmpeg re-encode / trimmer", "reencode:" + m, "trim:" + m + ":0", ">= 5");
    printRatio("MPEG-4 input: ffmpeg re-encode / kavra trim command", "reencode:" + m, "cli:" + m, ">= 5");
    printRatio("H.264 input: ffmpeg re-encode / trimmer", "reencode:" + h, "trim:" + h + ":0", ">= 1");
    printRatio("H.264 input: ffmpeg re-encode / kavra trim command", "reencode:" + h, "cli:" + h, ">= 1");
    printRatio("H.264 input: trimmer / ffmpeg copy (for scale)", "trim:" + h + ":0", "copy:" + h, "none");
    printRatio("H.264 input: keep-codec trimmer / ffmpeg copy", "keep:" + h + ":0", "copy:" + h, "<= 2");
    printRatio("H.264 input: MPEG-4 trimmer / keep-codec trimmer", "trim:" + h + ":0", "keep:" + h + ":0", ">= 5");
    if (gKeepCodecKbps > 0 && gSourceKbps > 0) {
        printf("  %-58s %6.2fx   (%.0f kbit/s / %.0f kbit/s)\n", "H.264 input: keep-codec output / source bit rate",
               gKeepCodecKbps / gSourceKbps, gKeepCodecKbps, gSourceKbps);
    }
    benchmark::Shutdown();
    return 0;
}
