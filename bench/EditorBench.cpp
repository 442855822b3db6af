// The editor item against the usual command-line ways of getting the same
// pictures, in the same run, on the 60 s 1080p benchmark clip:
//
// - a strip of ten 160x90 thumbnails evenly spread over the clip (each the
//   key frame at or before its time, in memory), against ten runs of
//   ffmpegthumbnailer at the same key frames, and against one ffmpeg
//   command that extracts the same ten key frames (two ways of writing that
//   command are timed; the faster one is the reference);
// - one exact snapshot (the first frame at or after a time in the middle of
//   a group of pictures, written as JPEG) against `ffmpeg -ss T -i clip
//   -frames:v 1`.
//
// The passes alternate in every iteration so that caching and machine load
// hit all alike. The figures that matter are the "speedup_vs_*" counters:
// reference time / editor time (above 1: the editor is faster). The
// reference commands include their process start-up; the editor opens the
// file afresh in every pass.

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "editor/VideoItem.h"

namespace {

const std::string kClip = std::string(KAVRA_FIXTURE_DIR) + "/bench_1080p.mp4";
constexpr int kThumbnails = 10;
constexpr int kWidth = 160;
constexpr int kHeight = 90;
// 31.5 s: the key frame is at 30 s, so the snapshot decodes 45 frames.
constexpr int kSnapshotMs = 31500;

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

std::string quote(const std::string& s) {
    std::string out = "'";
    for (char c : s) {
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return out + "'";
}

// Seconds a shell command takes; -1 when it fails.
double timeCommand(const std::string& command) {
    auto start = Clock::now();
    int status = std::system((command + " >/dev/null 2>&1").c_str());
    double seconds = secondsSince(start);
    return status == 0 ? seconds : -1;
}

class TempDir {
public:
    TempDir() {
        char pattern[] = "/tmp/kavra_editor_bench.XXXXXX";
        const char* made = mkdtemp(pattern);
        mPath = made != nullptr ? made : "/tmp";
    }
    ~TempDir() { std::system(("rm -rf " + quote(mPath)).c_str()); }
    std::string file(const std::string& name) const { return mPath + "/" + name; }

private:
    std::string mPath;
};

class CollectingSink : public ThumbnailSink {
public:
    bool onThumbnail(int, int ptsMs) override {
        ptsMs_.push_back(ptsMs);
        return true;
    }
    std::vector<int> ptsMs_;
};

// One strip through the editor item, from opening the file on. Returns the
// seconds taken and the presentation times of the key frames shown.
double editorStrip(std::vector<int>* keyTimesMs) {
    auto start = Clock::now();
    VideoItem item;
    if (item.setSource(kClip.c_str(), false) != 0) {
        return -1;
    }
    item.setItemParameters(0, item.getDuration(), kThumbnails, kWidth, kHeight, true);
    std::vector<int> pixels(kWidth * kHeight);
    CollectingSink sink;
    if (item.getThumbnailList(pixels.data(), static_cast<int>(pixels.size() * 4), sink) != 0 ||
        sink.ptsMs_.size() != kThumbnails) {
        return -1;
    }
    double seconds = secondsSince(start);
    *keyTimesMs = sink.ptsMs_;
    return seconds;
}

std::string secondsText(int ms) {
    char text[32];
    snprintf(text, sizeof(text), "%d.%03d", ms / 1000, ms % 1000);
    return text;
}

// Ten ffmpegthumbnailer runs, one per key frame (the key frames fall on
// whole seconds, which is what its -t takes).
double thumbnailerRuns(const std::vector<int>& keyTimesMs, const TempDir& dir) {
    double total = 0;
    for (size_t i = 0; i < keyTimesMs.size(); ++i) {
        int s = keyTimesMs[i] / 1000;
        char time[16];
        snprintf(time, sizeof(time), "%02d:%02d:%02d", s / 3600, s / 60 % 60, s % 60);
        double t = timeCommand("ffmpegthumbnailer -i " + quote(kClip) + " -o " +
                               quote(dir.file("thumb" + std::to_string(i) + ".png")) + " -s " +
                               std::to_string(kWidth) + " -t " + time);
        if (t < 0) {
            return -1;
        }
        total += t;
    }
    return total;
}

// One ffmpeg command, decoding only key frames and keeping the ten.
double ffmpegSelect(const std::vector<int>& keyTimesMs, const TempDir& dir) {
    std::string expr;
    for (int ms : keyTimesMs) {
        expr += (expr.empty() ? "" : "+") + std::string("between(t\\,") + secondsText(ms > 0 ? ms - 1 : 0) + "\\," +
                secondsText(ms + 1) + ")";
    }
    return timeCommand("ffmpeg -v error -nostdin -y -skip_frame nokey -i " + quote(kClip) + " -an -vf \"select='" +
                       expr + "',scale=" + std::to_string(kWidth) + ":" + std::to_string(kHeight) +
                       "\" -vsync vfr -f image2 " + quote(dir.file("select%02d.png")));
}

// One ffmpeg command with ten inputs, each sought to its key frame.
double ffmpegInputs(const std::vector<int>& keyTimesMs, const TempDir& dir) {
    std::string inputs;
    std::string outputs;
    for (size_t i = 0; i < keyTimesMs.size(); ++i) {
        inputs += " -noaccurate_seek -ss " + secondsText(keyTimesMs[i]) + " -i " + quote(kClip);
        outputs += " -map " + std::to_string(i) + ":v -frames:v 1 -s " + std::to_string(kWidth) + "x" +
                   std::to_string(kHeight) + " " + quote(dir.file("input" + std::to_string(i) + ".png"));
    }
    return timeCommand("ffmpeg -v error -nostdin -y" + inputs + outputs);
}

void BM_ThumbnailStrip(benchmark::State& state) {
    TempDir dir;
    double editor = 0, thumbnailer = 0, select = 0, inputs = 0;
    for (auto _ : state) {
        std::vector<int> keys;
        double e = editorStrip(&keys);
        if (e < 0) {
            state.SkipWithError(("cannot make a strip of " + kClip + " (generate it with make_fixtures.sh --bench)").c_str());
            return;
        }
        double t = thumbnailerRuns(keys, dir);
        double s = ffmpegSelect(keys, dir);
        double n = ffmpegInputs(keys, dir);
        if (t < 0 || s < 0 || n < 0) {
            state.SkipWithError("a reference command failed");
            return;
        }
        // Every reference must have written its ten pictures.
        for (int i = 0; i < kThumbnails; ++i) {
            char name[32];
            snprintf(name, sizeof(name), "select%02d.png", i + 1);
            if (access(dir.file(name).c_str(), F_OK) != 0 ||
                access(dir.file("input" + std::to_string(i) + ".png").c_str(), F_OK) != 0 ||
                access(dir.file("thumb" + std::to_string(i) + ".png").c_str(), F_OK) != 0) {
                state.SkipWithError("a reference command wrote fewer than ten pictures");
                return;
            }
        }
        if (access(dir.file("select11.png").c_str(), F_OK) == 0) {
            state.SkipWithError("the select command wrote more than ten pictures");
            return;
        }
        editor += e;
        thumbnailer += t;
        select += s;
        inputs += n;
        state.SetIterationTime(e);
    }
    const double runs = static_cast<double>(state.iterations());
    const double ffmpeg = std::min(select, inputs);
    state.counters["editor_ms"] = editor / runs * 1000;
    state.counters["thumbnailer_x10_ms"] = thumbnailer / runs * 1000;
    state.counters["ffmpeg_select_ms"] = select / runs * 1000;
    state.counters["ffmpeg_inputs_ms"] = inputs / runs * 1000;
    state.counters["speedup_vs_thumbnailer"] = thumbnailer / editor;
    state.counters["speedup_vs_ffmpeg"] = ffmpeg / editor;
}
BENCHMARK(BM_ThumbnailStrip)->Iterations(8)->UseManualTime()->Unit(benchmark::kMillisecond);

void BM_Snapshot(benchmark::State& state) {
    TempDir dir;
    const std::string editorShot = dir.file("editor.jpg");
    const std::string ffmpegShot = dir.file("ffmpeg.jpg");
    double editor = 0, ffmpeg = 0;
    for (auto _ : state) {
        auto start = Clock::now();
        int ret = -1;
        {
            VideoItem item;
            if (item.setSource(kClip.c_str(), false) == 0) {
                ret = item.snapShot(editorShot.c_str(), kSnapshotMs);
            }
        }
        double e = secondsSince(start);
        double f = timeCommand("ffmpeg -v error -nostdin -y -ss " + secondsText(kSnapshotMs) + " -i " + quote(kClip) +
                               " -frames:v 1 " + quote(ffmpegShot));
        if (ret != 0 || access(editorShot.c_str(), F_OK) != 0 || f < 0) {
            state.SkipWithError("a snapshot failed");
            return;
        }
        editor += e;
        ffmpeg += f;
        state.SetIterationTime(e);
    }
    const double runs = static_cast<double>(state.iterations());
    state.counters["editor_ms"] = editor / runs * 1000;
    state.counters["ffmpeg_ms"] = ffmpeg / runs * 1000;
    state.counters["speedup_vs_ffmpeg"] = ffmpeg / editor;
}
BENCHMARK(BM_Snapshot)->Iterations(8)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
