// Packets per second read through FFmpegMediaExtractor::readFrame against a
// plain av_read_frame loop over the same file, in the same process. The two
// loops alternate so that caching and machine load hit both alike; the
// figure that matters is the "ratio" counter (target: at least 0.97).

#include <benchmark/benchmark.h>

#include <chrono>
#include <string>

#include "Common/FFmpegPtr.h"
#include "Source/FFmpegMediaExtractor.h"

namespace {

const std::string kClip = std::string(KAVRA_FIXTURE_DIR) + "/bench_1080p.mp4";

using Clock = std::chrono::steady_clock;

// Seconds to read every packet of the clip with a plain demux loop.
double plainPass(long* packets) {
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, kClip.c_str(), nullptr, nullptr) < 0) {
        return -1;
    }
    kavra::ScopedAVInputContext ctx(raw);
    avformat_find_stream_info(ctx.get(), nullptr);
    kavra::ScopedAVPacket pkt = kavra::makeScopedAVPacket();
    auto start = Clock::now();
    while (av_read_frame(ctx.get(), pkt.get()) >= 0) {
        ++*packets;
        av_packet_unref(pkt.get());
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The same through the engine's extractor.
double extractorPass(long* packets) {
    FFmpegMediaExtractor extractor;
    if (extractor.setSource(kClip.c_str()) < 0 || extractor.findStreamInfo() < 0) {
        return -1;
    }
    kavra::ScopedAVPacket pkt = kavra::makeScopedAVPacket();
    auto start = Clock::now();
    while (extractor.readFrame(pkt.get()) == 0) {
        ++*packets;
        av_packet_unref(pkt.get());
    }
    return std::chrono::duration<double>(Clock::now() - start).count();
}

void BM_ExtractorVersusPlainDemux(benchmark::State& state) {
    double plainSeconds = 0;
    double extractorSeconds = 0;
    long plainPackets = 0;
    long extractorPackets = 0;
    for (auto _ : state) {
        double p = plainPass(&plainPackets);
        double e = extractorPass(&extractorPackets);
        if (p < 0 || e < 0) {
            state.SkipWithError(("cannot open " + kClip + " (generate it with make_fixtures.sh --bench)").c_str());
            return;
        }
        plainSeconds += p;
        extractorSeconds += e;
    }
    if (plainPackets != extractorPackets) {
        state.SkipWithError("the two loops read different packet counts");
        return;
    }
    double plainRate = plainPackets / plainSeconds;
    double extractorRate = extractorPackets / extractorSeconds;
    state.counters["plain_packets_per_s"] = plainRate;
    state.counters["extractor_packets_per_s"] = extractorRate;
    state.counters["ratio"] = extractorRate / plainRate;
}
BENCHMARK(BM_ExtractorVersusPlainDemux)->Iterations(20)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
