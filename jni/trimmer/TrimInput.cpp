#include "trimmer/TrimInput.h"

#include <algorithm>

#include "trimmer/TrimLog.h"
#include "trimmer/TrimTime.h"

using namespace trimtime;

int TrimInput::open(const std::string& path) {
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) != 0) {
        ALOGV("Couldn't open input stream");
        return -1;
    }
    mContext.reset(input);
    if (avformat_find_stream_info(input, nullptr) < 0) {
        ALOGV("Couldn't find stream info");
        return -2;
    }
    for (unsigned int i = 0; i < input->nb_streams; ++i) {
        const AVStream* st = input->streams[i];
        if (st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            // A cover picture is not the video.
            if ((st->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
                mVideoIndex = static_cast<int>(i);
            }
        } else if (st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            mAudioIndex = static_cast<int>(i);
        }
    }
    if (mVideoIndex == -1) {
        ALOGV("can't find any video stream. ");
    }
    if (mAudioIndex == -1) {
        ALOGV("can't find any audio stream. ");
    }
    if (mVideoIndex == -1) {
        // The output is built around its video stream; audio alone is not
        // trimmed.
        return -3;
    }
    mPacket.reset(av_packet_alloc());
    return mPacket ? 0 : -2;
}

void TrimInput::close() {
    mPacket.reset();
    mContext.reset();
}

bool TrimInput::isJoinPoint(const AVPacket* p) const { return isKey(p) && (!mIsJoinPoint || mIsJoinPoint(p)); }

int TrimInput::readPacket() {
    for (;;) {
        av_packet_unref(mPacket.get());
        int ret = av_read_frame(mContext.get(), mPacket.get());
        switch (mReadGuard.onRead(ret, mContext.get())) {
        case ReadProgressGuard::READ_PACKET: return ret;
        case ReadProgressGuard::READ_RETRY: break;
        default: return ret < 0 ? ret : AVERROR_EOF;
        }
    }
}

int64_t TrimInput::seekToStart() {
    AVStream* st = videoStream();
    int64_t ts = st->start_time != kNoTime ? st->start_time : 0;
    if (avformat_index_get_entries_count(st) > 0) {
        ts = std::min(ts, avformat_index_get_entry(st, 0)->timestamp);
    }
    if (av_seek_frame(mContext.get(), mVideoIndex, ts, AVSEEK_FLAG_BACKWARD) < 0) {
        avformat_seek_file(mContext.get(), -1, INT64_MIN, 0, 0, 0);
    }
    return ts;
}

// Reads to the first video key frame and returns its time (kNoTime at the
// end of the input).
int64_t TrimInput::firstVideoKeyPts() {
    while (readPacket() >= 0) {
        if (mPacket->stream_index == mVideoIndex && isKey(mPacket.get())) {
            int64_t t = packetTime(mPacket.get());
            av_packet_unref(mPacket.get());
            return t;
        }
    }
    av_packet_unref(mPacket.get());
    return kNoTime;
}

// Demuxers that seek by decoding time, or by a coarse index, may land on a
// key frame shown after the target; then the seek steps further back, and
// at worst starts over.
int64_t TrimInput::seekToKeyFrameAtOrBefore(int64_t target) {
    AVFormatContext* in = mContext.get();
    const AVRational tb = videoStream()->time_base;
    const int64_t oneSecond = std::max<int64_t>(1, av_rescale_q(1, AVRational{1, 1}, tb));
    int64_t seekTs = target;
    for (int attempt = 0; attempt < 6; ++attempt) {
        if (av_seek_frame(in, mVideoIndex, seekTs, AVSEEK_FLAG_BACKWARD) < 0) {
            break;
        }
        int64_t key = firstVideoKeyPts();
        if (key == kNoTime) {
            break;
        }
        if (key <= target) {
            av_seek_frame(in, mVideoIndex, seekTs, AVSEEK_FLAG_BACKWARD);
            return key;
        }
        // Step back further each time; a target far before anything in the
        // stream goes straight to the beginning.
        int64_t gap;
        int64_t step;
        if (__builtin_sub_overflow(key, target, &gap) ||
            __builtin_mul_overflow(std::max(gap, oneSecond), static_cast<int64_t>(attempt + 1), &step) ||
            __builtin_sub_overflow(seekTs, step, &seekTs)) {
            break;
        }
    }
    seekToStart();
    int64_t key = firstVideoKeyPts();
    seekToStart();
    return key;
}

TrimInput::CutScan TrimInput::scanCut(int64_t target, bool findKeyAfter, int64_t keyLimit) {
    CutScan scan{kNoTime, kNoTime, kForever, kNoTime};
    scan.keyBefore = seekToKeyFrameAtOrBefore(target);
    bool seenKey = false;
    while (readPacket() >= 0) {
        const AVPacket* p = mPacket.get();
        if (p->stream_index != mVideoIndex) {
            continue;
        }
        if (!seenKey && !isKey(p)) {
            continue;
        }
        seenKey = true;
        int64_t t = packetTime(p);
        if (t != kNoTime) {
            int64_t end = t + (p->duration > 0 ? p->duration : mFrameTicks);
            scan.videoEnd = scan.videoEnd == kNoTime ? end : std::max(scan.videoEnd, end);
        }
        if (t != kNoTime && t >= target) {
            if (scan.firstFrame == kNoTime || t < scan.firstFrame) {
                scan.firstFrame = t;
            }
            if (findKeyAfter && scan.keyAfter == kForever && isJoinPoint(p)) {
                scan.keyAfter = t;
            }
        }
        int64_t order = packetOrder(p);
        // No later packet can show a picture before this one's decoding time.
        bool firstKnown = scan.firstFrame != kNoTime && order != kNoTime && order >= scan.firstFrame;
        bool keyKnown = !findKeyAfter || scan.keyAfter != kForever || (order != kNoTime && order > keyLimit);
        if (firstKnown && keyKnown) {
            break;
        }
    }
    av_packet_unref(mPacket.get());
    return scan;
}
