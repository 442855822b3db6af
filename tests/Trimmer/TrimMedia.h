#pragma once

// What the trimmer tests read back from files: decoded frame indices, packet
// bytes, stream lengths; checks with the ffmpeg tool.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <numeric>
#include <string>
#include <vector>

extern "C" {
#include <libavutil/imgutils.h>
}

#include "Common/FFmpegPtr.h"
#include "Common/StreamRotation.h"
#include "support/FrameIndex.h"
#include "support/Process.h"
#include "support/ReferenceDecoder.h"
#include "support/ScratchDir.h"

namespace kavra::test {

// What the ffmpeg tool reports while decoding the whole file (warnings
// included); empty for a clean file.
inline std::string ffmpegDecodeComplaints(const std::string& path) {
    CommandResult r =
        runCommand("ffmpeg -nostdin -hide_banner -v warning -i " + shellQuote(path) + " -f null - 2>&1");
    if (r.status != 0 && r.output.empty()) {
        return "ffmpeg exited with status " + std::to_string(r.status);
    }
    return r.output;
}

struct Packet {
    bool key;
    std::vector<uint8_t> data;
};

struct MediaReport {
    bool opened = false;
    int audioStreams = 0;
    AVCodecID videoCodec = AV_CODEC_ID_NONE;
    AVRational frameRate{0, 1};
    int rotation = 0;
    std::vector<Packet> videoPackets;  // in file order
    std::vector<int> frames;           // decoded frame indices, display order
    std::vector<std::vector<uint8_t>> pictures;  // decoded planes, display order (when asked)
    double videoSeconds = 0;           // sum of video packet durations
    double videoStart = 0;             // when the first picture is shown (seconds, after the edit list)
    int64_t audioPackets = 0;
    double audioSeconds = 0;           // sum of audio packet durations
    double longestAudioPacket = 0;     // seconds
};

// Reads every packet of the main video and audio streams, then decodes the
// video, reading each picture's frame index (and, when asked, its planes).
inline MediaReport inspectMedia(const std::string& path, bool keepPictures = false) {
    MediaReport report;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0) {
        return report;
    }
    ScopedAVInputContext in(raw);
    if (avformat_find_stream_info(in.get(), nullptr) < 0) {
        return report;
    }
    report.opened = true;
    const int video = av_find_best_stream(in.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    const int audio = av_find_best_stream(in.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    for (unsigned i = 0; i < in->nb_streams; ++i) {
        report.audioStreams += in->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO ? 1 : 0;
    }
    if (video < 0) {
        return report;
    }
    AVStream* st = in->streams[video];
    report.videoCodec = st->codecpar->codec_id;
    report.frameRate = st->avg_frame_rate;
    report.rotation = StreamRotation::read(st);
    report.videoStart = st->start_time == AV_NOPTS_VALUE ? 0 : st->start_time * av_q2d(st->time_base);
    ScopedAVPacket pkt = makeScopedAVPacket();
    while (av_read_frame(in.get(), pkt.get()) >= 0) {
        if (pkt->stream_index == video) {
            report.videoSeconds += pkt->duration * av_q2d(st->time_base);
            report.videoPackets.push_back(
                Packet{(pkt->flags & AV_PKT_FLAG_KEY) != 0,
                       std::vector<uint8_t>(pkt->data, pkt->data + pkt->size)});
        } else if (pkt->stream_index == audio) {
            double d = pkt->duration * av_q2d(in->streams[audio]->time_base);
            ++report.audioPackets;
            report.audioSeconds += d;
            report.longestAudioPacket = std::max(report.longestAudioPacket, d);
        }
        av_packet_unref(pkt.get());
    }
    for (const ScopedAVFrame& frame : referenceFrames(path, AVMEDIA_TYPE_VIDEO, -1)) {
        report.frames.push_back(frameIndexFromLuma(frame->data[0], frame->linesize[0], frame->width, frame->height));
        if (keepPictures) {
            auto fmt = static_cast<AVPixelFormat>(frame->format);
            std::vector<uint8_t> planes(
                static_cast<size_t>(av_image_get_buffer_size(fmt, frame->width, frame->height, 1)));
            av_image_copy_to_buffer(planes.data(), static_cast<int>(planes.size()), frame->data, frame->linesize,
                                    fmt, frame->width, frame->height, 1);
            report.pictures.push_back(std::move(planes));
        }
    }
    return report;
}

// Peak signal-to-noise ratio of one picture against another of the same
// layout, in dB (infinite when they are equal).
inline double psnr(const std::vector<uint8_t>& a, const std::vector<uint8_t>& b) {
    double sum = 0;
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
        double d = static_cast<double>(a[i]) - b[i];
        sum += d * d;
    }
    return sum == 0 ? INFINITY : 10 * std::log10(255.0 * 255.0 * static_cast<double>(a.size()) / sum);
}

// first, first + 1, ..., last
inline std::vector<int> run(int first, int last) {
    std::vector<int> v(static_cast<size_t>(last - first + 1));
    std::iota(v.begin(), v.end(), first);
    return v;
}

inline std::vector<int> concat(std::vector<int> a, const std::vector<int>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

}  // namespace kavra::test
