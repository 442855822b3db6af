#include "trimmer/TrimMuxer.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "trimmer/TrimLog.h"
#include "trimmer/TrimTime.h"

using namespace trimtime;

namespace {

// A configuration header (visual object sequence, visual object or video
// object layer) at the start of an MPEG-4 Part 2 packet.
bool startsWithConfiguration(const uint8_t* data, int size) {
    if (size < 4 || data[0] != 0 || data[1] != 0 || data[2] != 1) {
        return false;
    }
    return data[3] == 0xB0 || data[3] == 0xB5 || data[3] <= 0x2F;
}

// An MPEG-4 Part 2 configuration header without its user-data sections
// (encoder identification), which do not change how pictures decode.
std::vector<uint8_t> withoutUserData(const std::vector<uint8_t>& header) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 < header.size(); ++i) {
        if (header[i] == 0 && header[i + 1] == 0 && header[i + 2] == 1) {
            starts.push_back(i);
            i += 2;
        }
    }
    if (starts.empty()) {
        return header;
    }
    std::vector<uint8_t> out(header.begin(), header.begin() + static_cast<long>(starts[0]));
    for (size_t s = 0; s < starts.size(); ++s) {
        size_t from = starts[s];
        size_t to = s + 1 < starts.size() ? starts[s + 1] : header.size();
        if (header[from + 3] != 0xB2) {
            out.insert(out.end(), header.begin() + static_cast<long>(from), header.begin() + static_cast<long>(to));
        }
    }
    return out;
}

bool sameFile(const std::string& a, const std::string& b) {
    struct stat sa;
    struct stat sb;
    return stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0 && sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
}

}  // namespace

int TrimMuxer::create(const std::string& outputPath, const std::string& inputPath) {
    // Writing over the input while reading it would destroy it.
    if (sameFile(inputPath, outputPath)) {
        ALOGV("Failed to open output file!");
        return -5;
    }
    AVFormatContext* output = nullptr;
    if (avformat_alloc_output_context2(&output, nullptr, nullptr, ".mp4") < 0 || output == nullptr) {
        ALOGV("avformat_alloc_output_context2 Failed ! ");
        return -5;
    }
    mContext.reset(output);
    // Opened for writing only: that truncates an existing file, which a
    // read-write open would not (its old tail would stay behind the new file).
    if (avio_open(&output->pb, outputPath.c_str(), AVIO_FLAG_WRITE) < 0) {
        ALOGV("Failed to open output file!");
        return -5;
    }
    mVideo = avformat_new_stream(output, nullptr);
    if (mVideo == nullptr) {
        ALOGV("avformat_new_stream Failed! ");
        return -5;
    }
    mHeaderPacket.reset(av_packet_alloc());
    return mHeaderPacket ? 0 : -5;
}

bool TrimMuxer::needsGlobalHeader() const { return (mContext->oformat->flags & AVFMT_GLOBALHEADER) != 0; }

void TrimMuxer::setFrameRate(AVRational frameRate, AVRational inTb) {
    mFrameRate = frameRate;
    bool wholeTicks = inTb.num > 0 && (static_cast<int64_t>(inTb.den) * mFrameRate.den) %
                                              (static_cast<int64_t>(inTb.num) * mFrameRate.num) == 0;
    mVideo->time_base = wholeTicks ? inTb : av_inv_q(mFrameRate);
}

int TrimMuxer::joinMpeg4Headers(const AVCodecParameters* inPar, const AVCodecContext* enc) {
    mInputHeader.assign(inPar->extradata, inPar->extradata + inPar->extradata_size);
    mEncoderHeader.assign(enc->extradata, enc->extradata + enc->extradata_size);
    mInbandHeaders = withoutUserData(mInputHeader) != withoutUserData(mEncoderHeader);
    if (!mInbandHeaders) {
        return 0;
    }
    AVCodecParameters* outPar = mVideo->codecpar;
    av_freep(&outPar->extradata);
    outPar->extradata_size = 0;
    outPar->extradata = static_cast<uint8_t*>(av_mallocz(mInputHeader.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (outPar->extradata == nullptr) {
        ALOGV("Failed to open encoder!  ");
        return -7;
    }
    memcpy(outPar->extradata, mInputHeader.data(), mInputHeader.size());
    outPar->extradata_size = static_cast<int>(mInputHeader.size());
    mActiveHeader = Source::Input;
    return 0;
}

int TrimMuxer::addAudioStream(const AVStream* inAudio) {
    mAudio = avformat_new_stream(mContext.get(), nullptr);
    if (mAudio == nullptr) {
        ALOGE("audio Codec Context copy error");
        return -8;
    }
    if (avcodec_parameters_copy(mAudio->codecpar, inAudio->codecpar) < 0) {
        ALOGE("audio Codec Context copy error");
        return -8;
    }
    mAudio->codecpar->codec_tag = 0;
    mAudio->time_base = inAudio->time_base;
    return 0;
}

int TrimMuxer::writeHeader() {
    ALOGE("mDstAudioIndex %d", mAudio != nullptr ? mAudio->index : -1);
    if (avformat_write_header(mContext.get(), nullptr) < 0) {
        ALOGE("write_header error");
        return -9;
    }
    mHeaderWritten = true;
    return 0;
}

int TrimMuxer::finish() { return av_write_trailer(mContext.get()); }

AVPacket* TrimMuxer::withHeader(AVPacket* packet, Source source) {
    if (!mInbandHeaders || source == mActiveHeader) {
        return packet;
    }
    // The first packet of a run from the other source (always a key frame)
    // carries that source's configuration in front of it.
    mActiveHeader = source;
    if (startsWithConfiguration(packet->data, packet->size)) {
        return packet;
    }
    const std::vector<uint8_t>& header = source == Source::Input ? mInputHeader : mEncoderHeader;
    av_packet_unref(mHeaderPacket.get());
    int size = static_cast<int>(header.size()) + packet->size;
    if (av_new_packet(mHeaderPacket.get(), size) < 0 || av_packet_copy_props(mHeaderPacket.get(), packet) < 0) {
        av_packet_unref(mHeaderPacket.get());
        return nullptr;
    }
    memcpy(mHeaderPacket->data, header.data(), header.size());
    memcpy(mHeaderPacket->data + header.size(), packet->data, static_cast<size_t>(packet->size));
    return mHeaderPacket.get();
}

int TrimMuxer::writeVideo(AVPacket* packet, Source source, int64_t pts, int64_t dts, int64_t duration) {
    AVPacket* out = withHeader(packet, source);
    if (out == nullptr) {
        return AVERROR(ENOMEM);
    }
    out->pts = pts;
    out->dts = dts;
    out->duration = duration;
    out->stream_index = mVideo->index;
    out->pos = -1;
    int ret = av_write_frame(mContext.get(), out);
    if (out == mHeaderPacket.get()) {
        av_packet_unref(mHeaderPacket.get());
    }
    if (ret < 0) {
        if (source == Source::Input) {
            ALOGV("av_write_frame dricetly Error %d", ret);
        }
        return ret;
    }
    ++mVideoFramesWritten;
    if (source == Source::Input) {
        ++mVideoFramesCopied;
        ALOGV("av_write_frame dricetly success");
    }
    return ret;
}

int TrimMuxer::writeVideoPacket(AVPacket* packet, Source source) {
    const AVRational frameDuration = av_inv_q(mFrameRate);
    const AVRational outTb = mVideo->time_base;
    int64_t pts = av_rescale_q(mVideoFramesWritten, frameDuration, outTb);
    int64_t next = av_rescale_q(mVideoFramesWritten + 1, frameDuration, outTb);
    int ret = writeVideo(packet, source, pts, pts, next - pts);
    if (ret >= 0) {
        mVideoEndIndex = mVideoFramesWritten;
    }
    return ret;
}

int TrimMuxer::writeReorderedVideoPacket(AVPacket* packet, Source source, int64_t presentIndex, int64_t decodeIndex,
                                         int64_t delayFrames) {
    const AVRational frameDuration = av_inv_q(mFrameRate);
    const AVRational outTb = mVideo->time_base;
    int64_t pts = av_rescale_q(presentIndex, frameDuration, outTb);
    int64_t next = av_rescale_q(presentIndex + 1, frameDuration, outTb);
    int64_t dts = av_rescale_q(decodeIndex - delayFrames, frameDuration, outTb);
    int ret = writeVideo(packet, source, pts, dts, next - pts);
    if (ret >= 0) {
        mVideoEndIndex = std::max(mVideoEndIndex, presentIndex + 1);
    }
    return ret;
}

int TrimMuxer::writeAudioPacket(AVPacket* packet, AVRational inTb, int64_t defaultTicks) {
    const AVRational outTb = mAudio->time_base;
    int64_t duration = packet->duration > 0 ? packet->duration : defaultTicks;
    int64_t pts = av_rescale_q(mNextAudioPts, inTb, outTb);
    packet->pts = pts;
    packet->dts = pts;
    packet->duration = av_rescale_q(mNextAudioPts + duration, inTb, outTb) - pts;
    packet->stream_index = mAudio->index;
    packet->pos = -1;
    int ret = av_write_frame(mContext.get(), packet);
    if (ret < 0) {
        ALOGV("audio write dricetly Error %d", ret);
        return ret;
    }
    ALOGV("audio write dricetly success");
    mNextAudioPts += duration;
    mAudioWrittenUs = av_rescale_q(mNextAudioPts, inTb, kMicroseconds);
    ++mAudioPacketsWritten;
    return ret;
}

int64_t TrimMuxer::outputDurationUs() const {
    int64_t video = av_rescale_q(mVideoEndIndex, av_inv_q(mFrameRate), kMicroseconds);
    return std::max(video, mAudioWrittenUs);
}

void TrimMuxer::release() {
    mHeaderPacket.reset();
    mContext.reset();
    mVideo = nullptr;
    mAudio = nullptr;
    mHeaderWritten = false;
}
