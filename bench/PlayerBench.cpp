// The player on the 60 s 1080p benchmark clip (H.264, a key frame every
// 2 s, AAC), against plain FFmpeg loops in the same run:
//
// - exact seeks: 40 fixed pseudo-random targets between key frames, while
//   paused; time from seekTo to the target picture queued into the window,
//   against one thread doing av_seek_frame to the key frame at or before the
//   target and decoding to the target frame;
// - short forward seeks: 40 seeks 400 ms ahead of the picture shown, against
//   the same thread decoding forward without seeking. For both kinds the
//   two sides take turns, 100 ms apart, and each reports p50 and p95 of
//   its latency, the ratios (player / reference, target <= 1.15), the
//   process CPU time per seek, and how many seeks showed another frame
//   than the reference decoded to (wrong_frames);
// - steady playback in real time with sound into a virtual device: picture
//   time minus the sound being heard at each presented picture, CPU time
//   per presented picture against decoding the same media on one thread,
//   and heap allocations per picture by component;
// - scrubbing: 30 seeks a second for 3 s, as a finger drags a slider:
//   distinct pictures shown per second and the time from the last seek to
//   its picture.
//
// The clip is made by tests/fixtures/make_fixtures.sh ... --bench.

#include <benchmark/benchmark.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include "AllocationCounter.h"
#include "Common/FFmpegPtr.h"
#include "Common/MediaTime.h"
#include "CountingNativeWindow.h"
#include "Player/KavraMediaPlayer.h"
#include "VirtualAudioDevice.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kSeeks = 40;
constexpr int kShortSeekMs = 400;
// Pause between seeks, as between two taps; the same on both sides.
constexpr auto kBetweenSeeks = std::chrono::milliseconds(100);
constexpr int kWaitMs = 5000;

std::string clipPath() { return std::string(KAVRA_FIXTURE_DIR) + "/bench_1080p.mp4"; }

bool clipExists() {
    struct stat st;
    return stat(clipPath().c_str(), &st) == 0;
}

double msBetween(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double, std::milli>(b - a).count();
}

double processCpuSeconds() {
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

double percentile(std::vector<double> v, double p) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    size_t i = static_cast<size_t>(p * (v.size() - 1) + 0.5);
    return v[std::min(i, v.size() - 1)];
}

// 40 fixed targets inside frames that are not key frames, spread over the
// clip: a key-frame interval, a frame 1..59 within it, 10 ms into it.
std::vector<int> exactTargets() {
    std::vector<int> targets;
    uint32_t state = 12345;
    auto next = [&state] {
        state = state * 1103515245u + 12345u;
        return (state >> 16) & 0x7fff;
    };
    for (int i = 0; i < kSeeks; ++i) {
        int gop = static_cast<int>(next() % 29);
        int frame = 1 + static_cast<int>(next() % 59);
        targets.push_back(gop * 2000 + frame * 1000 / 30 + 10);
    }
    return targets;
}

// ---- Reference: one thread, plain FFmpeg -------------------------------------

class ReferenceSeeker {
public:
    bool open() {
        AVFormatContext* raw = nullptr;
        if (avformat_open_input(&raw, clipPath().c_str(), nullptr, nullptr) < 0) {
            return false;
        }
        mInput.reset(raw);
        avformat_find_stream_info(mInput.get(), nullptr);
        mIndex = av_find_best_stream(mInput.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (mIndex < 0) {
            return false;
        }
        mStream = mInput->streams[mIndex];
        const AVCodec* codec = avcodec_find_decoder(mStream->codecpar->codec_id);
        mCtx.reset(avcodec_alloc_context3(codec));
        avcodec_parameters_to_context(mCtx.get(), mStream->codecpar);
        mCtx->pkt_timebase = mStream->time_base;
        mPacket = kavra::makeScopedAVPacket();
        mFrame = kavra::makeScopedAVFrame();
        return avcodec_open2(mCtx.get(), codec, nullptr) >= 0;
    }

    // The least an exact seek must do: to the key frame at or before the
    // target, then decoding to the first frame that reaches it (the same
    // rule as the player's). Returns that frame's time, -1 on failure.
    int seek(int targetMs) {
        int64_t ts = av_rescale_q(targetMs, AVRational{1, 1000}, mStream->time_base);
        if (av_seek_frame(mInput.get(), mIndex, ts, AVSEEK_FLAG_BACKWARD) < 0) {
            return -1;
        }
        avcodec_flush_buffers(mCtx.get());
        return decodeTo(targetMs);
    }

    // Decodes forward from where the decoder is to the first frame that
    // reaches the target.
    int decodeTo(int targetMs) {
        while (av_read_frame(mInput.get(), mPacket.get()) >= 0) {
            if (mPacket->stream_index != mIndex) {
                av_packet_unref(mPacket.get());
                continue;
            }
            int sent = avcodec_send_packet(mCtx.get(), mPacket.get());
            av_packet_unref(mPacket.get());
            if (sent < 0) {
                continue;
            }
            while (avcodec_receive_frame(mCtx.get(), mFrame.get()) >= 0) {
                int pts = MediaTime::ticksToMs(mFrame->best_effort_timestamp, mStream->time_base);
                int dur = MediaTime::ticksToMs(mFrame->pkt_duration, mStream->time_base);
                av_frame_unref(mFrame.get());
                if (targetMs <= pts + dur) {
                    return pts;
                }
            }
        }
        return -1;
    }

private:
    kavra::ScopedAVInputContext mInput;
    kavra::ScopedAVCodecContext mCtx;
    kavra::ScopedAVPacket mPacket;
    kavra::ScopedAVFrame mFrame;
    AVStream* mStream = nullptr;
    int mIndex = -1;
};

// ---- The player ---------------------------------------------------------------

// Every picture that reaches the window, with its arrival time, in a ring
// made once, so that watching allocates nothing.
class FrameWatch {
public:
    void onFrame(int ptsMs) {
        std::lock_guard<std::mutex> lock(mMutex);
        Entry& e = mRing[mCount % kRing];
        e.ptsMs = ptsMs;
        e.at = Clock::now();
        mCount += 1;
        mCond.notify_all();
    }
    uint64_t count() {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCount;
    }
    // The first picture after the first `after` ones, waiting up to
    // timeoutMs; false when none came.
    bool next(uint64_t after, int* ptsMs, Clock::time_point* at) {
        std::unique_lock<std::mutex> lock(mMutex);
        if (!mCond.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return mCount > after; })) {
            return false;
        }
        const Entry& e = mRing[after % kRing];
        *ptsMs = e.ptsMs;
        *at = e.at;
        return true;
    }
    // The first picture of time ptsMs after the first `after` ones.
    bool find(uint64_t after, int ptsMs, Clock::time_point* at) {
        for (uint64_t i = after;; ++i) {
            int pts = 0;
            if (!next(i, &pts, at)) {
                return false;
            }
            if (pts == ptsMs) {
                return true;
            }
        }
    }
    // Distinct picture times among pictures [from, to).
    int distinct(uint64_t from, uint64_t to) {
        std::lock_guard<std::mutex> lock(mMutex);
        std::vector<int> seen;
        for (uint64_t i = from; i < to && i < mCount; ++i) {
            seen.push_back(mRing[i % kRing].ptsMs);
        }
        std::sort(seen.begin(), seen.end());
        return static_cast<int>(std::unique(seen.begin(), seen.end()) - seen.begin());
    }

private:
    struct Entry {
        int ptsMs;
        Clock::time_point at;
    };
    static constexpr uint64_t kRing = 4096;
    std::mutex mMutex;
    std::condition_variable mCond;
    Entry mRing[kRing];
    uint64_t mCount = 0;
};

class ForwardingSink : public PcmSink {
public:
    explicit ForwardingSink(PcmSink* target) : mTarget(target) {}
    int deliver(const uint8_t* pcm, int size) override { return mTarget->deliver(pcm, size); }
    void willDeliver(int ptsMs, int sampleRate, int channels) override {
        mTarget->willDeliver(ptsMs, sampleRate, channels);
    }

private:
    PcmSink* mTarget;
};

// A player on the clip with the counting window and the virtual device.
// `observe` is called for every presented picture, after the watch.
struct BenchPlayer {
    FrameWatch watch;
    VirtualAudioDevice sound;
    std::function<void(int)> observe;
    KavraMediaPlayer player;
    std::string error;

    bool open() {
        if (!clipExists()) {
            error = clipPath() + " missing: run tests/fixtures/make_fixtures.sh with --bench";
            return false;
        }
        auto window = std::make_shared<CountingNativeWindow>([this](int ptsMs) {
            watch.onFrame(ptsMs);
            if (observe) {
                observe(ptsMs);
            }
        });
        if (player.setDataSource(clipPath().c_str()) != 0) {
            error = "the player cannot open the clip";
            return false;
        }
        player.setVideoPlay(window);
        player.setAudioPlay(std::unique_ptr<PcmSink>(new ForwardingSink(&sound)));
        if (player.prepare() != 0) {
            error = "the player cannot prepare the clip";
            return false;
        }
        return true;
    }
    // Starts, waits for the first picture and pauses.
    bool startPaused() {
        player.start();
        int pts = 0;
        Clock::time_point at;
        if (!watch.next(0, &pts, &at)) {
            error = "no picture after start";
            return false;
        }
        player.pause();
        std::this_thread::sleep_for(kBetweenSeeks);
        return true;
    }
    ~BenchPlayer() {
        sound.stop();
        player.stop();
        player.release();
    }
};

// One seek while paused: its latency to the first picture after it, and
// that picture's time. False when none came.
// `*cpuMs` is the process's CPU time over the same span.
bool timedSeek(BenchPlayer& p, int targetMs, double* latencyMs, int* shownMs, double* cpuMs) {
    uint64_t before = p.watch.count();
    double cpu0 = processCpuSeconds();
    Clock::time_point t0 = Clock::now();
    p.player.seekTo(targetMs, true);
    Clock::time_point at;
    if (!p.watch.next(before, shownMs, &at)) {
        return false;
    }
    *latencyMs = msBetween(t0, at);
    *cpuMs = (processCpuSeconds() - cpu0) * 1000;
    return true;
}

// Latencies and CPU times (ms) per seek of both sides.
struct SeekTimes {
    std::vector<double> engineMs;
    std::vector<double> referenceMs;
    std::vector<double> engineCpuMs;
    std::vector<double> referenceCpuMs;

    // Times one reference step.
    template <typename Step>
    int reference(Step&& step) {
        double cpu0 = processCpuSeconds();
        Clock::time_point t0 = Clock::now();
        int shown = step();
        referenceMs.push_back(msBetween(t0, Clock::now()));
        referenceCpuMs.push_back((processCpuSeconds() - cpu0) * 1000);
        return shown;
    }
};

void reportLatencies(benchmark::State& state, const SeekTimes& times, int wrongFrames) {
    const std::vector<double>& engine = times.engineMs;
    const std::vector<double>& reference = times.referenceMs;
    // On a loaded machine the scheduler gives a process more of the cores
    // the more threads it has waiting; CPU time per seek says what each
    // side costs whatever the load.
    double c50 = percentile(times.engineCpuMs, 0.5);
    double rc50 = percentile(times.referenceCpuMs, 0.5);
    state.counters["player_cpu_p50_ms"] = c50;
    state.counters["reference_cpu_p50_ms"] = rc50;
    state.counters["cpu_ratio_p50"] = rc50 > 0 ? c50 / rc50 : 0;
    double e50 = percentile(engine, 0.5);
    double e95 = percentile(engine, 0.95);
    double r50 = percentile(reference, 0.5);
    double r95 = percentile(reference, 0.95);
    state.counters["player_p50_ms"] = e50;
    state.counters["player_p95_ms"] = e95;
    state.counters["reference_p50_ms"] = r50;
    state.counters["reference_p95_ms"] = r95;
    state.counters["ratio_p50"] = r50 > 0 ? e50 / r50 : 0;
    state.counters["ratio_p95"] = r95 > 0 ? e95 / r95 : 0;
    state.counters["wrong_frames"] = wrongFrames;
    double load[1] = {0};
    if (getloadavg(load, 1) == 1) {
        state.counters["load_avg_1min"] = load[0];
    }
}

void BM_ExactSeek(benchmark::State& state) {
    const std::vector<int> targets = exactTargets();
    for (auto _ : state) {
        ReferenceSeeker ref;
        BenchPlayer p;
        if (!clipExists() || !ref.open() || !p.open() || !p.startPaused()) {
            state.SkipWithError(("cannot play the clip: " + p.error).c_str());
            return;
        }
        // The two sides take turns, so that both meet the same load.
        SeekTimes times;
        int wrong = 0;
        for (int t : targets) {
            int expected = times.reference([&] { return ref.seek(t); });
            std::this_thread::sleep_for(kBetweenSeeks);
            double latency = 0;
            double cpu = 0;
            int shown = -1;
            if (!timedSeek(p, t, &latency, &shown, &cpu)) {
                state.SkipWithError("a seek showed no picture");
                return;
            }
            wrong += shown != expected ? 1 : 0;
            times.engineMs.push_back(latency);
            times.engineCpuMs.push_back(cpu);
            std::this_thread::sleep_for(kBetweenSeeks);
        }
        reportLatencies(state, times, wrong);
    }
}

void BM_ShortForwardSeek(benchmark::State& state) {
    const int startMs = 5010;
    for (auto _ : state) {
        ReferenceSeeker ref;
        BenchPlayer p;
        if (!clipExists() || !ref.open() || !p.open() || !p.startPaused()) {
            state.SkipWithError(("cannot play the clip: " + p.error).c_str());
            return;
        }
        int refShown = ref.seek(startMs);
        double latency = 0;
        double cpu = 0;
        int shown = -1;
        if (!timedSeek(p, startMs, &latency, &shown, &cpu)) {
            state.SkipWithError("the first seek showed no picture");
            return;
        }
        std::this_thread::sleep_for(kBetweenSeeks);
        SeekTimes times;
        int wrong = 0;
        for (int i = 0; i < kSeeks; ++i) {
            refShown = times.reference([&] { return ref.decodeTo(refShown + kShortSeekMs); });
            std::this_thread::sleep_for(kBetweenSeeks);
            if (!timedSeek(p, shown + kShortSeekMs, &latency, &shown, &cpu)) {
                state.SkipWithError("a seek showed no picture");
                return;
            }
            wrong += shown != refShown ? 1 : 0;
            times.engineMs.push_back(latency);
            times.engineCpuMs.push_back(cpu);
            std::this_thread::sleep_for(kBetweenSeeks);
        }
        reportLatencies(state, times, wrong);
    }
}

// Decodes video and sound of the clip's first `mediaMs` on one thread;
// CPU seconds, and the video frames in `*frames`.
double decodeOnlyCpu(int mediaMs, int* frames) {
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, clipPath().c_str(), nullptr, nullptr) < 0) {
        return -1;
    }
    kavra::ScopedAVInputContext input(raw);
    avformat_find_stream_info(input.get(), nullptr);
    kavra::ScopedAVCodecContext ctx[2];
    for (unsigned i = 0; i < input->nb_streams && i < 2; ++i) {
        const AVCodec* codec = avcodec_find_decoder(input->streams[i]->codecpar->codec_id);
        ctx[i].reset(avcodec_alloc_context3(codec));
        avcodec_parameters_to_context(ctx[i].get(), input->streams[i]->codecpar);
        avcodec_open2(ctx[i].get(), codec, nullptr);
    }
    kavra::ScopedAVPacket pkt = kavra::makeScopedAVPacket();
    kavra::ScopedAVFrame frame = kavra::makeScopedAVFrame();
    *frames = 0;
    double start = processCpuSeconds();
    while (av_read_frame(input.get(), pkt.get()) >= 0) {
        int s = pkt->stream_index;
        AVStream* st = input->streams[s];
        bool done = MediaTime::ticksToMs(pkt->pts, st->time_base) > mediaMs;
        if (s < 2 && !done && avcodec_send_packet(ctx[s].get(), pkt.get()) >= 0) {
            while (avcodec_receive_frame(ctx[s].get(), frame.get()) >= 0) {
                *frames += st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO ? 1 : 0;
                av_frame_unref(frame.get());
            }
        }
        av_packet_unref(pkt.get());
        if (done && st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            break;
        }
    }
    return processCpuSeconds() - start;
}

// Real-time playback from the start: offsets of picture and sound, CPU per
// picture over [warm-up, end), and with `countAllocations` the heap
// allocations per picture over the same span.
void BM_SteadyPlayback(benchmark::State& state) {
    const bool countAllocations = state.range(0) != 0;
    const auto warmup = std::chrono::seconds(2);
    const auto span = std::chrono::seconds(countAllocations ? 5 : 10);
    for (auto _ : state) {
        std::vector<double> offsets;
        offsets.reserve(4096);
        std::mutex offsetsLock;
        std::atomic<bool> measuring{false};
        BenchPlayer p;
        // Sampled on the presentation thread into storage made beforehand.
        p.observe = [&](int ptsMs) {
            double heard = 0;
            if (measuring && p.sound.playingPtsMs(&heard)) {
                std::lock_guard<std::mutex> lock(offsetsLock);
                if (offsets.size() < offsets.capacity()) {
                    offsets.push_back(ptsMs - heard);
                }
            }
        };
        if (!p.open()) {
            state.SkipWithError(p.error.c_str());
            return;
        }
        benchalloc::prime();
        p.player.start();
        std::this_thread::sleep_for(warmup);
        uint64_t frames0 = p.watch.count();
        double cpu0 = processCpuSeconds();
        measuring = true;
        if (countAllocations) {
            benchalloc::start();
        }
        std::this_thread::sleep_for(span);
        if (countAllocations) {
            benchalloc::stop();
        }
        measuring = false;
        double cpu = processCpuSeconds() - cpu0;
        int presented = static_cast<int>(p.watch.count() - frames0);
        if (presented < 1) {
            state.SkipWithError("no picture presented");
            return;
        }
        const double expectedFrames = std::chrono::duration<double>(span).count() * 30;
        state.counters["presented_per_s"] = presented / std::chrono::duration<double>(span).count();
        state.counters["presented_share"] = presented / expectedFrames;
        if (countAllocations) {
            benchalloc::Counts counts = benchalloc::take();
            state.counters["allocs_per_frame"] = static_cast<double>(counts.total) / presented;
            for (int owner = 0; owner < benchalloc::kOwnerCount; ++owner) {
                state.counters[benchalloc::kOwnerCounters[owner]] =
                    static_cast<double>(counts.byOwner[owner]) / presented;
            }
            benchalloc::printSites("player playback", counts, presented);
            continue;
        }
        int refFrames = 0;
        const int mediaMs = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(span).count());
        double refCpu = decodeOnlyCpu(mediaMs, &refFrames);
        double engineMsPerFrame = cpu * 1000 / presented;
        double refMsPerFrame = refFrames > 0 ? refCpu * 1000 / refFrames : 0;
        state.counters["player_cpu_ms_per_frame"] = engineMsPerFrame;
        state.counters["decode_only_cpu_ms_per_frame"] = refMsPerFrame;
        state.counters["cpu_ratio"] = refMsPerFrame > 0 ? engineMsPerFrame / refMsPerFrame : 0;
        std::lock_guard<std::mutex> lock(offsetsLock);
        if (!offsets.empty()) {
            double sum = 0;
            for (double o : offsets) {
                sum += o;
            }
            // Positive: the picture is ahead of the sound (sound behind).
            state.counters["av_offset_mean_ms"] = sum / offsets.size();
            state.counters["av_offset_p5_ms"] = percentile(offsets, 0.05);
            state.counters["av_offset_p95_ms"] = percentile(offsets, 0.95);
            std::vector<double> abs;
            for (double o : offsets) {
                abs.push_back(std::fabs(o));
            }
            state.counters["av_offset_p95_abs_ms"] = percentile(abs, 0.95);
            state.counters["av_samples"] = static_cast<double>(offsets.size());
        }
    }
}

void BM_Scrub(benchmark::State& state) {
    const int fromMs = 5010;
    const int stepMs = 500;   // 15 s of media per second of dragging
    const int seeks = 90;     // 3 s at 30 a second
    for (auto _ : state) {
        ReferenceSeeker ref;
        if (!clipExists() || !ref.open()) {
            state.SkipWithError("cannot open the clip: run tests/fixtures/make_fixtures.sh with --bench");
            return;
        }
        const int lastTarget = fromMs + (seeks - 1) * stepMs;
        const int lastExpected = ref.seek(lastTarget);
        BenchPlayer p;
        if (!p.open() || !p.startPaused()) {
            state.SkipWithError(p.error.c_str());
            return;
        }
        const uint64_t before = p.watch.count();
        const Clock::time_point t0 = Clock::now();
        Clock::time_point lastCall;
        for (int i = 0; i < seeks; ++i) {
            std::this_thread::sleep_until(t0 + std::chrono::microseconds(33333) * i);
            lastCall = Clock::now();
            p.player.seekTo(fromMs + i * stepMs, true);
        }
        const uint64_t duringDrag = p.watch.count();
        const double dragSeconds = msBetween(t0, Clock::now()) / 1000;
        Clock::time_point at;
        if (!p.watch.find(before, lastExpected, &at)) {
            state.SkipWithError("the last seek's picture never came");
            return;
        }
        state.counters["distinct_frames_per_s"] = p.watch.distinct(before, duringDrag) / dragSeconds;
        state.counters["last_seek_to_picture_ms"] = msBetween(lastCall, at);
    }
}

BENCHMARK(BM_ExactSeek)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ShortForwardSeek)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SteadyPlayback)->Arg(0)->Arg(1)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Scrub)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
