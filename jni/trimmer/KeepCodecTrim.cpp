#include "trimmer/KeepCodecTrim.h"

#include <algorithm>
#include <cstring>

#include "trimmer/NalUnits.h"
#include "trimmer/TrimInput.h"
#include "trimmer/TrimLog.h"
#include "trimmer/TrimMuxer.h"
#include "trimmer/TrimTime.h"

using namespace trimtime;

KeepCodecTrim::KeepCodecTrim(TrimInput& input, TrimMuxer& muxer, VideoReencoder& reencoder)
    : mInput(input),
      mMuxer(muxer),
      mReencoder(reencoder),
      mDecoder(nullptr),
      mInputParams(nullptr),
      mFrameRate{30, 1},
      mFrameTicks(1),
      mAudioTicks(0),
      mDelayFrames(0),
      mPresented(0),
      mDecoded(0),
      mLastAudioTime(kNoTime) {}

int KeepCodecTrim::setUp(const AVCodecContext* decoder, AVRational frameRate, AVRational sampleAspect,
                         std::string* why) {
    const AVCodecParameters* in = mInput.videoStream()->codecpar;
    mDecoder = decoder;
    mInputParams = in;
    mFrameRate = frameRate;
    mStream = KeepCodecStream::forCodec(in->codec_id);
    if (!mStream) {
        *why = std::string(avcodec_get_name(in->codec_id)) + " input";
        return -1;
    }
    kavra::ScopedAVCodecContext encoder;
    if (mStream->setUp(decoder, in, frameRate, sampleAspect, &encoder, why) < 0) {
        return -1;
    }
    AVStream* out = mMuxer.videoStream();
    std::vector<uint8_t> record = mStream->record();
    if (avcodec_parameters_copy(out->codecpar, in) < 0) {
        *why = "out of memory";
        return -1;
    }
    av_freep(&out->codecpar->extradata);
    out->codecpar->extradata = static_cast<uint8_t*>(av_mallocz(record.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (out->codecpar->extradata == nullptr) {
        out->codecpar->extradata_size = 0;
        *why = "out of memory";
        return -1;
    }
    memcpy(out->codecpar->extradata, record.data(), record.size());
    out->codecpar->extradata_size = static_cast<int>(record.size());
    out->codecpar->codec_tag = mStream->codecTag();
    // The encoder opened here serves the first run of frames.
    mSpareEncoder = std::move(encoder);
    mEncoded.reset(av_packet_alloc());
    if (!mEncoded) {
        *why = "out of memory";
        return -1;
    }
    // Copies start only where no later packet refers to anything before
    // (IDR pictures; in HEVC any random access point, whose leading
    // pictures the copy leaves out).
    const KeepCodecStream* stream = mStream.get();
    mInput.setJoinPoint([stream](const AVPacket* p) {
        return stream->isJoinPoint(p->data, static_cast<size_t>(p->size));
    });
    return 0;
}

void KeepCodecTrim::begin(int64_t frameTicks, int64_t audioTicks, std::function<void(const AVPacket*)> onRead) {
    mFrameTicks = std::max<int64_t>(1, frameTicks);
    mAudioTicks = audioTicks;
    mOnRead = std::move(onRead);
    // The reordering delay: what the stream declares, or what its first
    // packet shows, whichever is more.
    mDelayFrames = std::max({0, mInputParams->video_delay, mDecoder->has_b_frames});
    mInput.seekToStart();
    while (mInput.readPacket() >= 0) {
        const AVPacket* p = mInput.packet();
        if (p->stream_index == mInput.videoIndex()) {
            if (p->pts != kNoTime && p->dts != kNoTime && p->pts > p->dts) {
                mDelayFrames = std::max(mDelayFrames, (p->pts - p->dts + mFrameTicks - 1) / mFrameTicks);
            }
            break;
        }
    }
    av_packet_unref(mInput.packet());
}

int64_t KeepCodecTrim::framesBetween(int64_t from, int64_t to) const {
    return av_rescale_q_rnd(to - from, mInput.videoStream()->time_base, av_inv_q(mFrameRate), AV_ROUND_NEAR_INF);
}

int KeepCodecTrim::runPart(const Part& part) {
    TrimInput::CutScan scan = mInput.scanCut(part.videoLow, true, part.videoHigh);
    if (scan.firstFrame == kNoTime || scan.firstFrame > part.videoHigh) {
        return 0;
    }
    const int64_t key = scan.keyAfter;
    if (key == kForever || key > part.videoHigh) {
        ALOGV("keep codec: no IDR picture in the part, every frame re-encoded");
        return encodeRun(part.videoLow, part.videoHigh, kNoTime, true, part);
    }
    if (scan.firstFrame < key) {
        int ret = encodeRun(part.videoLow, key - 1, key, false, part);
        if (ret < 0) {
            return ret;
        }
    }
    bool tailNeeded = false;
    int64_t last = copyRun(key, part, &tailNeeded);
    if (tailNeeded) {
        return encodeRun(last + 1, part.videoHigh, kNoTime, true, part);
    }
    return 0;
}

int KeepCodecTrim::encodeRun(int64_t low, int64_t high, int64_t stopAtKey, bool last, const Part& part) {
    kavra::ScopedAVCodecContext encoder = std::move(mSpareEncoder);
    std::string why;
    if (!encoder && mStream->openEncoder(&encoder, &why) < 0) {
        ALOGE("keep codec: %s", why.c_str());
        return -1;
    }
    mReencoder.setEncoder(std::move(encoder));
    mReencoder.setKeepWindow(low, high);
    mInput.seekToKeyFrameAtOrBefore(low);
    bool videoDone = false;
    bool audioDone = mInput.audioIndex() < 0;
    bool seenKey = false;
    bool pastStop = false;
    int ret = 0;
    while (!(videoDone && (audioDone || !last)) && ret >= 0) {
        if (mInput.readPacket() < 0) {
            break;
        }
        AVPacket* p = mInput.packet();
        if (p->stream_index == mInput.videoIndex()) {
            if (videoDone || (!seenKey && !isKey(p))) {
                continue;
            }
            seenKey = true;
            const int64_t order = packetOrder(p);
            const bool atStop = stopAtKey != kNoTime && isKey(p) && packetTime(p) >= stopAtKey;
            const size_t size = static_cast<size_t>(p->size);
            // Pictures shown before the key picture the copy starts at but
            // decoded after it (leading pictures) are not copied: they are
            // re-encoded here, so the key picture is decoded for them.
            if (pastStop ? !mStream->isLeading(p->data, size)
                         : (atStop ? !mStream->mayLead(p->data, size) : order != kNoTime && order > high)) {
                videoDone = true;
                continue;
            }
            pastStop = pastStop || atStop;
            mOnRead(p);
            // A picture before the run that nothing refers to is not decoded.
            const int64_t shown = packetTime(p);
            if (!isKey(p) && shown != kNoTime && shown < low && mStream->isDisposable(p->data, size)) {
                continue;
            }
            ret = mReencoder.reencodePacket(p);
        } else if (p->stream_index == mInput.audioIndex() && !audioDone) {
            audioDone = takeAudio(p, part);
        }
    }
    av_packet_unref(mInput.packet());
    mReencoder.drainDecoder();
    mReencoder.drainEncoder();
    return ret;
}

int64_t KeepCodecTrim::copyRun(int64_t key, const Part& part, bool* tailNeeded) {
    mInput.seekToKeyFrameAtOrBefore(key);
    const int64_t base = mPresented;
    int64_t last = kNoTime;
    int64_t copied = 0;
    bool reachedKey = false;
    bool leading = false;
    bool videoDone = false;
    bool audioDone = mInput.audioIndex() < 0;
    while (!(videoDone && audioDone) && !*tailNeeded) {
        if (mInput.readPacket() < 0) {
            break;
        }
        AVPacket* p = mInput.packet();
        if (p->stream_index == mInput.videoIndex()) {
            int64_t t = packetTime(p);
            if (videoDone || t == kNoTime) {
                continue;
            }
            // A coarse seek may land before the key frame the copy starts at.
            if (!reachedKey && !(isKey(p) && t == key)) {
                continue;
            }
            if (!reachedKey) {
                // The key picture's leading pictures are left out (they were
                // re-encoded, or are shown before the part), and the key
                // picture tells the decoder so.
                reachedKey = true;
                leading = true;
                if (mStream->markJoin(p) < 0) {
                    ALOGE("keep codec: the key picture a copy starts at cannot be marked");
                }
            } else if (leading && mStream->isLeading(p->data, static_cast<size_t>(p->size))) {
                continue;
            } else {
                leading = false;
            }
            if (t > part.videoHigh) {
                // This picture and everything decoded after it lies beyond
                // the part, or depends on what does: frames of the part not
                // copied yet are re-encoded.
                videoDone = true;
                *tailNeeded = last != kNoTime && last + mFrameTicks <= part.videoHigh;
                continue;
            }
            mOnRead(p);
            int ret = mMuxer.writeReorderedVideoPacket(p, TrimMuxer::Source::Input, base + framesBetween(key, t),
                                                       mDecoded, mDelayFrames);
            if (ret < 0) {
                ALOGE("keep codec: copied packet not written (%d)", ret);
            }
            ++mDecoded;
            ++copied;
            last = last == kNoTime ? t : std::max(last, t);
        } else if (p->stream_index == mInput.audioIndex() && !audioDone) {
            audioDone = takeAudio(p, part);
        }
    }
    av_packet_unref(mInput.packet());
    if (last != kNoTime) {
        int64_t frames = framesBetween(key, last) + 1;
        if (frames != copied) {
            ALOGW("keep codec: %lld packets copied for %lld frames", static_cast<long long>(copied),
                  static_cast<long long>(frames));
        }
        mPresented = base + frames;
    }
    return last;
}

bool KeepCodecTrim::takeAudio(AVPacket* p, const Part& part) {
    int64_t t = packetTime(p);
    if (t != kNoTime && t >= part.audioHigh) {
        return true;
    }
    // Runs of one part read some audio twice; each packet is written once.
    if ((p->flags & AV_PKT_FLAG_DISCARD) == 0 && t != kNoTime && t >= part.audioLow &&
        (mLastAudioTime == kNoTime || t > mLastAudioTime)) {
        mOnRead(p);
        mMuxer.writeAudioPacket(p, mInput.audioStream()->time_base, mAudioTicks);
        mLastAudioTime = t;
    }
    return false;
}

int KeepCodecTrim::writeEncodedPacket(AVPacket* packet) {
    AVPacket* out = packet;
    if (nalunits::startsWithStartCode(packet->data, static_cast<size_t>(std::max(0, packet->size)))) {
        if (!mStream->toOutput(packet->data, static_cast<size_t>(packet->size), &mNalBuffer)) {
            ALOGE("keep codec: an encoded packet cannot be written beside the copied ones");
            return AVERROR_INVALIDDATA;
        }
        av_packet_unref(mEncoded.get());
        if (av_new_packet(mEncoded.get(), static_cast<int>(mNalBuffer.size())) < 0 ||
            av_packet_copy_props(mEncoded.get(), packet) < 0) {
            return AVERROR(ENOMEM);
        }
        memcpy(mEncoded->data, mNalBuffer.data(), mNalBuffer.size());
        out = mEncoded.get();
    }
    int ret = mMuxer.writeReorderedVideoPacket(out, TrimMuxer::Source::Encoder, mPresented, mDecoded, mDelayFrames);
    ++mPresented;
    ++mDecoded;
    av_packet_unref(mEncoded.get());
    return ret;
}
