// Decoding speed of the engine's decoders against plain FFmpeg loops over
// the same packets, in the same run.
//
// Video: the first 300 pictures of the 1080p H.264 benchmark clip, through
// FFmpegDecoder and through MediaCodecVideoDecoder (each with its decoding
// thread, input and output queues, and a consumer thread that takes and
// gives back every frame), against avcodec_send_packet/receive_frame on the
// caller's thread. Every decoder here uses FFmpeg's default of one decoding
// thread. Audio: the clip's AAC decoded by FFmpegDecoder and converted to
// 16-bit stereo by FFmpegAudioConverter on the consumer thread, against a
// plain decode loop with swr_convert.
//
// AAC frames decode in a few microseconds, so for audio the cost of moving
// each frame from one core to another is a large share of the whole. To
// show how much of the gap to the plain loop comes from handing frames
// between threads at all, the audio benchmark also runs the plain loop on a
// thread of its own, handing frames to a converting consumer through a
// lock-free five-slot ring on which both sides spin (handoff_ratio: that
// pipeline against the plain loop; engine_vs_handoff: the engine against
// that pipeline).
//
// Each iteration runs the reference and the engine back to back; the
// counters are frames per second of each over all iterations, their ratio
// (engine divided by reference, 1.0 = as fast), the median of the
// per-iteration ratios, and cpu_ratio: reference CPU time divided by the
// CPU time of all the engine's threads. The clip is made by
// tests/fixtures/make_fixtures.sh ... --bench. The engine's log lines are
// kept off the terminal.

#include <android/log.h>
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <ctime>
#include <thread>
#include <vector>

#include "Common/FFmpegPtr.h"
#include "Decoder/FFmpegAudioConverter.h"
#include "Decoder/FFmpegDecoder.h"
#include "Decoder/MediaCodecVideoDecoder.h"
#include "Source/FFmpegMediaExtractor.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kVideoPackets = 300;
constexpr int kAudioPackets = 1300;  // about 30 s of sound

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// The clip's first packets of one kind, kept in memory so that reading the
// file is no part of what is measured.
struct Clip {
    FFmpegMediaExtractor extractor;
    AVStream* stream = nullptr;
    std::vector<kavra::ScopedAVPacket> packets;
    std::string error;

    Clip(AVMediaType type, int count) {
        std::string path = std::string(KAVRA_FIXTURE_DIR) + "/bench_1080p.mp4";
        struct stat st;
        if (stat(path.c_str(), &st) != 0 || extractor.setSource(path.c_str()) != 0 || extractor.findStreamInfo() != 0) {
            error = path + " missing: run tests/fixtures/make_fixtures.sh with --bench";
            return;
        }
        int index = type == AVMEDIA_TYPE_VIDEO ? extractor.mMediaInfo.bestVideoStreamIndex
                                               : extractor.mMediaInfo.bestAudioStreamIndex;
        stream = extractor.getStream(index);
        kavra::ScopedAVPacket pkt = kavra::makeScopedAVPacket();
        while (static_cast<int>(packets.size()) < count && extractor.readFrame(pkt.get()) == 0) {
            if (pkt->stream_index == index && pkt->size > 0) {
                packets.push_back(kavra::makeScopedAVPacket());
                av_packet_move_ref(packets.back().get(), pkt.get());
            } else {
                av_packet_unref(pkt.get());
            }
        }
        if (static_cast<int>(packets.size()) < count) {
            error = "the benchmark clip is too short";
        }
    }
};

Clip& videoClip() {
    static Clip clip(AVMEDIA_TYPE_VIDEO, kVideoPackets);
    return clip;
}

Clip& audioClip() {
    static Clip clip(AVMEDIA_TYPE_AUDIO, kAudioPackets);
    return clip;
}

// The reference: FFmpeg's decoder driven directly. `perFrame` sees every
// frame. Returns the frame count.
template <typename PerFrame>
int plainDecode(const Clip& clip, PerFrame&& perFrame) {
    const AVCodec* codec = avcodec_find_decoder(clip.stream->codecpar->codec_id);
    kavra::ScopedAVCodecContext ctx(avcodec_alloc_context3(codec));
    avcodec_parameters_to_context(ctx.get(), clip.stream->codecpar);
    ctx->pkt_timebase = clip.stream->time_base;
    avcodec_open2(ctx.get(), codec, nullptr);
    kavra::ScopedAVFrame frame = kavra::makeScopedAVFrame();
    int frames = 0;
    auto receive = [&] {
        while (avcodec_receive_frame(ctx.get(), frame.get()) == 0) {
            perFrame(frame.get());
            av_frame_unref(frame.get());
            frames += 1;
        }
    };
    for (const kavra::ScopedAVPacket& pkt : clip.packets) {
        avcodec_send_packet(ctx.get(), pkt.get());
        receive();
    }
    avcodec_send_packet(ctx.get(), nullptr);
    receive();
    return frames;
}

// A lean hand-off between two threads, for comparison with the engine's:
// the plain loop on its own thread, each frame moved into one of five slots
// that a consumer thread takes in order, with two counters on cache lines of
// their own and both sides spinning instead of sleeping. `perFrame` sees
// every frame on the consumer thread. Returns the frame count.
template <typename PerFrame>
int handOffDecode(const Clip& clip, PerFrame perFrame) {
    constexpr long kSlots = 5;
    struct alignas(64) Counter {
        std::atomic<long> value{0};
    };
    Counter written;
    Counter taken;
    Counter finished;
    kavra::ScopedAVFrame slots[kSlots];
    for (kavra::ScopedAVFrame& slot : slots) {
        slot = kavra::makeScopedAVFrame();
    }
    long frames = 0;
    std::thread consumer([&] {
        for (long next = 0;; ++next) {
            while (written.value.load(std::memory_order_acquire) == next) {
                if (finished.value.load(std::memory_order_acquire) != 0 &&
                    written.value.load(std::memory_order_acquire) == next) {
                    return;
                }
                std::this_thread::yield();
            }
            perFrame(slots[next % kSlots].get());
            frames += 1;
            taken.value.store(next + 1, std::memory_order_release);
        }
    });
    long next = 0;
    plainDecode(clip, [&](AVFrame* frame) {
        while (next - taken.value.load(std::memory_order_acquire) >= kSlots) {
            std::this_thread::yield();
        }
        AVFrame* slot = slots[next % kSlots].get();
        av_frame_unref(slot);
        av_frame_move_ref(slot, frame);
        next += 1;
        written.value.store(next, std::memory_order_release);
    });
    finished.value.store(1, std::memory_order_release);
    consumer.join();
    return static_cast<int>(frames);
}

// The engine: packets handed over as the demux thread does, frames taken
// by a consumer thread as a renderer does. `perFrame` sees every frame on
// the consumer thread. Returns the frame count, or -1 on failure.
template <typename PerFrame>
int engineDecode(Decoder& decoder, const Clip& clip, PerFrame perFrame) {
    if (decoder.create(clip.stream) != 0) {
        return -1;
    }
    FrameBufferQueue* queue = decoder.getOutputQueue();
    std::atomic<int> frames{0};
    std::atomic<bool> done{false};
    std::mutex endMutex;
    std::condition_variable endCond;
    bool ended = false;
    std::thread consumer([&] {
        while (!done) {
            int index = queue->dequeueOutputBufferIndex(100);
            if (index < 0) {
                continue;
            }
            FrameBuffer* b = queue->getBuffer(index);
            bool end = b->size == 0;
            if (!end) {
                perFrame(b);
            }
            queue->releaseOutputBuffer();
            if (end) {
                std::lock_guard<std::mutex> lock(endMutex);
                ended = true;
                done = true;
                endCond.notify_all();
            } else {
                frames += 1;
            }
        }
    });
    decoder.start();
    kavra::ScopedAVPacket pkt = kavra::makeScopedAVPacket();
    for (const kavra::ScopedAVPacket& src : clip.packets) {
        av_packet_ref(pkt.get(), src.get());
        while (decoder.queueInputBuffer(pkt.get(), 5) == -2) {
        }
        av_packet_unref(pkt.get());
    }
    while (decoder.queueInputBuffer(nullptr, 5) == -2) {
    }
    {
        std::unique_lock<std::mutex> lock(endMutex);
        endCond.wait_for(lock, std::chrono::seconds(60), [&] { return ended; });
    }
    bool finished = done;
    done = true;
    decoder.stop();
    consumer.join();
    decoder.release();
    return finished ? frames.load() : -1;
}

// CPU time of the whole process (every thread), in seconds.
double processCpuSeconds() {
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return ts.tv_sec + ts.tv_nsec / 1e9;
}

// One side's run: wall time and the CPU time all threads spent.
struct Run {
    double wall;
    double cpu;
};

template <typename Work>
Run measure(Work work) {
    Clock::time_point wall = Clock::now();
    double cpu = processCpuSeconds();
    work();
    return Run{secondsSince(wall), processCpuSeconds() - cpu};
}

// Per-iteration results of both sides. On a machine shared with other work
// single runs swing widely, so besides the ratio over all iterations the
// median of the per-iteration ratios is reported, and the ratio of CPU time
// (work done per frame, whatever the scheduling).
struct Totals {
    std::vector<double> ratios;
    double engineWall = 0;
    double plainWall = 0;
    double engineCpu = 0;
    double plainCpu = 0;
    long engineFrames = 0;
    long plainFrames = 0;

    void add(const Run& engine, const Run& plain, int frames) {
        engineWall += engine.wall;
        plainWall += plain.wall;
        engineCpu += engine.cpu;
        plainCpu += plain.cpu;
        engineFrames += frames;
        plainFrames += frames;
        ratios.push_back(plain.wall / engine.wall);
    }

    void report(benchmark::State& state) {
        double engineFps = engineFrames / engineWall;
        double plainFps = plainFrames / plainWall;
        std::sort(ratios.begin(), ratios.end());
        size_t n = ratios.size();
        state.counters["engine_fps"] = engineFps;
        state.counters["plain_fps"] = plainFps;
        state.counters["ratio"] = engineFps / plainFps;
        state.counters["ratio_median"] = n % 2 == 1 ? ratios[n / 2] : (ratios[n / 2 - 1] + ratios[n / 2]) / 2;
        state.counters["cpu_ratio"] = plainCpu / engineCpu;
        state.counters["frames"] = static_cast<double>(engineFrames) / static_cast<double>(state.iterations());
    }
};

template <typename MakeDecoder>
void videoAgainstPlain(benchmark::State& state, MakeDecoder makeDecoder) {
    Clip& clip = videoClip();
    if (!clip.error.empty()) {
        state.SkipWithError(clip.error.c_str());
        return;
    }
    Totals totals;
    for (auto _ : state) {
        int plain = 0;
        Run plainRun = measure([&] { plain = plainDecode(clip, [](const AVFrame*) {}); });
        std::unique_ptr<Decoder> decoder = makeDecoder();
        int engine = 0;
        Run engineRun = measure([&] { engine = engineDecode(*decoder, clip, [](const FrameBuffer*) {}); });
        if (engine != plain) {
            state.SkipWithError("the engine decoded another number of frames");
            return;
        }
        totals.add(engineRun, plainRun, engine);
        state.SetIterationTime(engineRun.wall);
    }
    totals.report(state);
}

void BM_VideoFFmpegDecoderVsPlain(benchmark::State& state) {
    videoAgainstPlain(state, [] { return std::unique_ptr<Decoder>(new FFmpegDecoder()); });
}

void BM_VideoMediaCodecVideoDecoderVsPlain(benchmark::State& state) {
    videoAgainstPlain(state, [] { return std::unique_ptr<Decoder>(new MediaCodecVideoDecoder()); });
}

// 16-bit stereo at 44.1 kHz with a resampler built for the first frame, as
// a plain program would write it. Counts the bytes produced.
struct PlainS16 {
    kavra::ScopedSwrContext swr;
    std::vector<uint8_t> out = std::vector<uint8_t>(FFmpegAudioConverter::kOutBufferBytes);
    size_t bytes = 0;

    void operator()(const AVFrame* f) {
        if (swr == nullptr) {
            SwrContext* raw = nullptr;
            AVChannelLayout stereo;
            AVChannelLayout in;
            av_channel_layout_default(&stereo, 2);
            av_channel_layout_default(&in, f->ch_layout.nb_channels);
            swr_alloc_set_opts2(&raw, &stereo, AV_SAMPLE_FMT_S16, 44100, &in, static_cast<AVSampleFormat>(f->format),
                                f->sample_rate, 0, nullptr);
            swr.reset(raw);
            swr_init(swr.get());
        }
        uint8_t* dst = out.data();
        int n = swr_convert(swr.get(), &dst, static_cast<int>(out.size() / 4),
                            const_cast<const uint8_t**>(f->extended_data), f->nb_samples);
        bytes += n > 0 ? static_cast<size_t>(n) * 4 : 0;
    }
};

void BM_AudioFFmpegDecoderToS16VsPlain(benchmark::State& state) {
    Clip& clip = audioClip();
    if (!clip.error.empty()) {
        state.SkipWithError(clip.error.c_str());
        return;
    }
    Totals totals;
    Totals handOff;
    for (auto _ : state) {
        PlainS16 plainS16;
        int plain = 0;
        Run plainRun = measure([&] { plain = plainDecode(clip, [&](const AVFrame* f) { plainS16(f); }); });
        benchmark::DoNotOptimize(plainS16.bytes);

        PlainS16 handOffS16;
        int handed = 0;
        Run handOffRun = measure([&] { handed = handOffDecode(clip, [&](const AVFrame* f) { handOffS16(f); }); });

        FFmpegAudioConverter converter;
        size_t engineBytes = 0;
        FFmpegDecoder decoder;
        int engine = 0;
        Run engineRun = measure([&] {
            engine = engineDecode(decoder, clip, [&](const FrameBuffer* b) {
                AVFrame* f = static_cast<AVFrame*>(b->data);
                unsigned char* pcm = nullptr;
                int n = converter.convert(pcm, 44100, 2, AV_SAMPLE_FMT_S16,
                                          const_cast<const unsigned char**>(f->extended_data), b->sampleRate,
                                          b->channels, b->format, b->nbSamples);
                engineBytes += n > 0 ? static_cast<size_t>(n) : 0;
            });
        });
        if (engine != plain || engineBytes != plainS16.bytes || handed != plain || handOffS16.bytes != plainS16.bytes) {
            state.SkipWithError("the engine or the hand-off pipeline produced other audio than the reference");
            return;
        }
        totals.add(engineRun, plainRun, engine);
        handOff.add(handOffRun, plainRun, handed);
        state.SetIterationTime(engineRun.wall);
    }
    totals.report(state);
    state.counters["handoff_ratio"] = handOff.plainWall / handOff.engineWall;
    state.counters["engine_vs_handoff"] = handOff.engineWall / totals.engineWall;
}

BENCHMARK(BM_VideoFFmpegDecoderVsPlain)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VideoMediaCodecVideoDecoderVsPlain)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AudioFFmpegDecoderToS16VsPlain)->UseManualTime()->Iterations(15)->Unit(benchmark::kMillisecond);

}  // namespace

int main(int argc, char** argv) {
    __android_log_set_minimum_priority(ANDROID_LOG_SILENT);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
