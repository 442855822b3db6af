// Decoding speed of the engine's decoders against plain FFmpeg loops over
// the same packets, in the same run.
//
// Video: the first 300 pictures of the 1080p H.264 benchmark clip, through
// FFmpegDecoder and through MediaCodecVideoDecoder. Audio: the clip's AAC
// decoded by FFmpegDecoder and converted to 16-bit stereo by
// FFmpegAudioConverter on the consuming thread. Every codec here runs with
// FFmpeg's default of one decoding thread.
//
// The engine runs with its threads as in the player: packets handed over
// through its input queue, a decoding thread, and a consumer thread that
// takes and gives back every frame through its output queue. The reference
// is a plain avcodec_send_packet/receive_frame loop with the same threading:
// the loop runs on a thread of its own and hands every frame to a consumer
// thread through a five-slot ring without locks, each side watching the
// ring for a moment before it sleeps, as the engine's queue does. Its
// consumer does the same per-frame work as the engine's.
//
// For scale, the plain loop is also run on one thread with the per-frame
// work done inline. AAC frames decode in a few microseconds, so moving each
// frame's samples from one core to another costs a large share of the
// whole: no design that decodes on one thread and converts on another gets
// close to the one-thread loop (pipeline_vs_one_thread says how close the
// lean ring gets on the machine at hand).
//
// Each iteration runs the three back to back, the engine last in one
// iteration and first in the next. Counters: frames per second
// of the engine and of the reference over all iterations; ratio (engine
// divided by reference, 1.0 = as fast, the target is 0.95) and the median
// of the per-iteration ratios; cpu_ratio, the reference's CPU time divided
// by the engine's (all threads); one_thread_ratio, the engine against the
// one-thread loop, and pipeline_vs_one_thread. The clip is made by
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

// The plain loop: FFmpeg's decoder driven directly on the calling thread.
// `perFrame` sees every frame. Returns the frame count.
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

// One side's wait in the reference ring, with the engine's waiting policy:
// watch for 50 us, yielding, then sleep until the other side wakes it. The
// other side calls wake() after each change it publishes; it takes the lock
// only when this side is asleep. Both the published counters and `sleeping`
// are sequentially consistent, so a change is either seen before sleeping
// or its wake() sees `sleeping` set.
struct RingWait {
    std::mutex mutex;
    std::condition_variable cond;
    std::atomic<bool> sleeping{false};

    template <typename Ready>
    void until(Ready ready) {
        Clock::time_point spinEnd = Clock::now() + std::chrono::microseconds(50);
        while (!ready() && Clock::now() < spinEnd) {
            std::this_thread::yield();
        }
        if (ready()) {
            return;
        }
        std::unique_lock<std::mutex> lock(mutex);
        sleeping = true;
        while (!ready()) {
            cond.wait(lock);
        }
        sleeping = false;
    }

    void wake() {
        if (sleeping) {
            std::lock_guard<std::mutex> lock(mutex);
            cond.notify_one();
        }
    }
};

// The reference, with the engine's threading: the plain loop on a thread
// started for the run, as the engine starts its decoding thread (so neither
// side decodes on the long-lived main thread), each frame moved into one of
// five slots that a consumer thread takes in order. No locks: two counters
// on cache lines of their own, and each side waits as the engine's queue
// does (RingWait). `perFrame` sees every frame on the consumer thread.
// Returns the frame count.
template <typename PerFrame>
int plainPipeline(const Clip& clip, PerFrame perFrame) {
    constexpr long kSlots = 5;
    struct alignas(64) Counter {
        std::atomic<long> value{0};
    };
    Counter written;
    Counter taken;
    Counter finished;
    RingWait consumerWait;
    RingWait producerWait;
    kavra::ScopedAVFrame slots[kSlots];
    for (kavra::ScopedAVFrame& slot : slots) {
        slot = kavra::makeScopedAVFrame();
    }
    long frames = 0;
    std::thread consumer([&] {
        for (long next = 0;; ++next) {
            consumerWait.until([&] { return written.value != next || finished.value != 0; });
            if (written.value == next) {
                return;
            }
            perFrame(slots[next % kSlots].get());
            frames += 1;
            taken.value = next + 1;
            producerWait.wake();
        }
    });
    std::thread producer([&] {
        long next = 0;
        plainDecode(clip, [&](AVFrame* frame) {
            producerWait.until([&] { return next - taken.value < kSlots; });
            AVFrame* slot = slots[next % kSlots].get();
            av_frame_unref(slot);
            av_frame_move_ref(slot, frame);
            next += 1;
            written.value = next;
            consumerWait.wake();
        });
        finished.value = 1;
        consumerWait.wake();
    });
    producer.join();
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

// Per-iteration results of the engine, the reference with the same
// threading, and the one-thread loop. On a machine shared with other work
// single runs swing widely, so besides the ratio over all iterations the
// median of the per-iteration ratios is reported, and the ratio of CPU time
// (work done per frame, whatever the scheduling).
struct Totals {
    std::vector<double> ratios;
    Run engine{0, 0};
    Run pipeline{0, 0};
    Run oneThread{0, 0};
    long frames = 0;

    // Every other iteration runs the engine before the references, so that
    // a drift in the machine's speed during a run favours neither side.
    bool engineGoesFirst() const { return ratios.size() % 2 == 1; }

    void add(const Run& e, const Run& p, const Run& o, int count) {
        engine.wall += e.wall;
        engine.cpu += e.cpu;
        pipeline.wall += p.wall;
        pipeline.cpu += p.cpu;
        oneThread.wall += o.wall;
        oneThread.cpu += o.cpu;
        frames += count;
        ratios.push_back(p.wall / e.wall);
    }

    void report(benchmark::State& state) {
        std::sort(ratios.begin(), ratios.end());
        size_t n = ratios.size();
        state.counters["engine_fps"] = frames / engine.wall;
        state.counters["plain_fps"] = frames / pipeline.wall;
        state.counters["ratio"] = pipeline.wall / engine.wall;
        state.counters["ratio_median"] = n % 2 == 1 ? ratios[n / 2] : (ratios[n / 2 - 1] + ratios[n / 2]) / 2;
        state.counters["cpu_ratio"] = pipeline.cpu / engine.cpu;
        state.counters["one_thread_ratio"] = oneThread.wall / engine.wall;
        state.counters["pipeline_vs_one_thread"] = oneThread.wall / pipeline.wall;
        state.counters["frames"] = static_cast<double>(frames) / static_cast<double>(state.iterations());
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
        std::unique_ptr<Decoder> decoder = makeDecoder();
        int engine = 0;
        Run engineRun{0, 0};
        auto runEngine = [&] {
            engineRun = measure([&] { engine = engineDecode(*decoder, clip, [](const FrameBuffer*) {}); });
        };
        bool engineFirst = totals.engineGoesFirst();
        if (engineFirst) {
            runEngine();
        }
        int inlineFrames = 0;
        Run oneThreadRun = measure([&] { inlineFrames = plainDecode(clip, [](const AVFrame*) {}); });
        int plain = 0;
        Run plainRun = measure([&] { plain = plainPipeline(clip, [](const AVFrame*) {}); });
        if (!engineFirst) {
            runEngine();
        }
        if (engine != plain || inlineFrames != plain) {
            state.SkipWithError("the engine decoded another number of frames");
            return;
        }
        totals.add(engineRun, plainRun, oneThreadRun, engine);
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
    for (auto _ : state) {
        FFmpegAudioConverter converter;
        size_t engineBytes = 0;
        FFmpegDecoder decoder;
        int engine = 0;
        Run engineRun{0, 0};
        auto runEngine = [&] {
            engineRun = measure([&] {
                engine = engineDecode(decoder, clip, [&](const FrameBuffer* b) {
                    AVFrame* f = static_cast<AVFrame*>(b->data);
                    unsigned char* pcm = nullptr;
                    int n = converter.convert(pcm, 44100, 2, AV_SAMPLE_FMT_S16,
                                              const_cast<const unsigned char**>(f->extended_data), b->sampleRate,
                                              b->channels, b->format, b->nbSamples);
                    engineBytes += n > 0 ? static_cast<size_t>(n) : 0;
                });
            });
        };
        bool engineFirst = totals.engineGoesFirst();
        if (engineFirst) {
            runEngine();
        }

        PlainS16 inlineS16;
        int inlineFrames = 0;
        Run oneThreadRun = measure([&] { inlineFrames = plainDecode(clip, [&](const AVFrame* f) { inlineS16(f); }); });
        benchmark::DoNotOptimize(inlineS16.bytes);

        PlainS16 plainS16;
        int plain = 0;
        Run plainRun = measure([&] { plain = plainPipeline(clip, [&](const AVFrame* f) { plainS16(f); }); });
        if (!engineFirst) {
            runEngine();
        }
        if (engine != plain || inlineFrames != plain || engineBytes != plainS16.bytes ||
            inlineS16.bytes != plainS16.bytes) {
            state.SkipWithError("the engine produced other audio than the plain loops");
            return;
        }
        totals.add(engineRun, plainRun, oneThreadRun, engine);
        state.SetIterationTime(engineRun.wall);
    }
    totals.report(state);
}

BENCHMARK(BM_VideoFFmpegDecoderVsPlain)->UseManualTime()->Iterations(9)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VideoMediaCodecVideoDecoderVsPlain)->UseManualTime()->Iterations(9)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AudioFFmpegDecoderToS16VsPlain)->UseManualTime()->Iterations(31)->Unit(benchmark::kMillisecond);

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
