#include "trimmer/VideoTrimer.h"

#include <algorithm>
#include <climits>

extern "C" {
#include <libavutil/mathematics.h>
}

#include "Common/StreamRotation.h"
#include "NativeEventPostListener.h"
#include "trimmer/Mpeg4Encoder.h"
#include "trimmer/TrimLog.h"
#include "trimmer/TrimProgressListener.h"
#include "trimmer/TrimTime.h"

using namespace trimtime;

VideoTrimer::VideoTrimer(const char* inputPath, const char* outputPath)
    : mKeepCodecTrim(mInput, mMuxer, mReencoder),
      mRunningPass(nullptr),
      mSrcAudioIndex(-1),
      mSrcVideoIndex(-1),
      mStartTime(0),
      mEndTime(0),
      mVideoStartPTS(-1),
      mVideoStopPTS(-1),
      mAudioStartPTS(-1),
      mAudioStopPTS(-1),
      mFirstSyncTime(0),
      mSecondSyncTime(0),
      mVideoTicks(0),
      mAudioTicks(0),
      mInputPath(inputPath != nullptr ? inputPath : ""),
      mOutputPath(outputPath != nullptr ? outputPath : ""),
      mProgressListener(nullptr),
      mTrimDone(false),
      mCopyVideo(false),
      mKeepCodecRequested(false),
      mKeepCodec(false),
      mOrigin(0),
      mFrameRate{30, 1},
      mInputFrameTicks(0),
      mProgressTotalUs(0),
      mProgressDoneUs(0),
      mProgressPassUs(0),
      mLastPercent(-1) {
    ALOGV("VideoTrimer construct");
}

VideoTrimer::~VideoTrimer() {
    release();
    ALOGV("VideoTrimer::~VideoTrimer");
}
void VideoTrimer::setJNIListener(JNIEnv* env, jobject thiz, jobject weakThis, jmethodID method) {
    ALOGV("VideoTrimer::setJNIListener");
    // A listener set earlier is replaced, and freed with its references.
    mListener.reset(new NativeEventPostListener(env, thiz, weakThis, method));
}

void VideoTrimer::notifyEvent(int msg, int ext1, int ext2) {
    if (mListener) {
        mListener->notify(msg, ext1, ext2);
    }
}

void VideoTrimer::setTrimParam(int64_t start, int64_t end) {
    float seconds = static_cast<float>((static_cast<double>(end) - static_cast<double>(start)) / 1000000.0);
    ALOGV("setTrimParam %lld,%lld  duration:%f", static_cast<long long>(start), static_cast<long long>(end),
          static_cast<double>(seconds));
    mStartTime = start;
    mEndTime = end;
}

void VideoTrimer::setProgressListener(TrimProgressListener* listener) { mProgressListener = listener; }

int VideoTrimer::prepare() {
    ALOGV("prepare");
    if (mInput.isOpen()) {
        ALOGE("prepare: already prepared");
        return -1;
    }
    int ret = mInput.open(mInputPath);
    if (ret != 0) {
        return ret;
    }
    mSrcVideoIndex = mInput.videoIndex();
    mSrcAudioIndex = mInput.audioIndex();
    AVFormatContext* input = mInput.context();
    AVStream* inVideo = mInput.videoStream();
    int rotation = StreamRotation::read(inVideo);
    ret = mReencoder.openDecoder(inVideo);
    if (ret != 0) {
        return ret;
    }
    const AVCodecContext* dec = mReencoder.decoder();

    ret = mMuxer.create(mOutputPath, mInputPath);
    if (ret != 0) {
        return ret;
    }
    AVStream* outVideo = mMuxer.videoStream();
    if (StreamRotation::write(outVideo, rotation) < 0) {
        ALOGV("set angle  Failed! ");
    }
    // The output runs at the input's frame rate (29.97 stays 30000/1001).
    mFrameRate = av_guess_frame_rate(input, inVideo, nullptr);
    if (mFrameRate.num <= 0 || mFrameRate.den <= 0) {
        mFrameRate = AVRational{30, 1};
    }
    mMuxer.setFrameRate(mFrameRate, inVideo->time_base);

    AVRational sar = inVideo->sample_aspect_ratio.num > 0 ? inVideo->sample_aspect_ratio
                                                            : inVideo->codecpar->sample_aspect_ratio;
    if (sar.num > 0 && sar.den > 0) {
        outVideo->sample_aspect_ratio = sar;
    }
    av_dump_format(mMuxer.context(), 1, mOutputPath.c_str(), 1);
    if (mKeepCodecRequested) {
        std::string why;
        mKeepCodec = mKeepCodecTrim.setUp(dec, mFrameRate, sar, &why) == 0;
        if (mKeepCodec) {
            ALOGV("video packets copied from each cut's IDR picture, the frames before it re-encoded as %s",
                  avcodec_get_name(inVideo->codecpar->codec_id));
        } else {
            ALOGW("keep codec: re-encoding to MPEG-4 instead: %s", why.c_str());
        }
    }
    if (mKeepCodec) {
        mReencoder.setSink(&mKeepCodecTrim);
        return finishPrepare();
    }
    kavra::ScopedAVCodecContext encoder;
    ret = Mpeg4Encoder::open(dec, sar, mMuxer.needsGlobalHeader(), &encoder);
    if (ret != 0) {
        return ret;
    }
    if (avcodec_parameters_from_context(outVideo->codecpar, encoder.get()) < 0) {
        ALOGV("Failed to open encoder!  ");
        return -7;
    }
    outVideo->codecpar->codec_tag = 0;

    // Packets can be copied into the encoder's stream only from an MPEG-4
    // Part 2 input in decoding order equal to display order, with pictures of
    // the encoder's size and a known configuration header.
    const AVCodecParameters* inPar = inVideo->codecpar;
    mCopyVideo = inPar->codec_id == AV_CODEC_ID_MPEG4 && inPar->video_delay == 0 && dec->has_b_frames == 0 &&
                 inPar->extradata_size > 0 && inPar->width == encoder->width && inPar->height == encoder->height;
    if (mCopyVideo && mMuxer.joinMpeg4Headers(inPar, encoder.get()) < 0) {
        return -7;
    }
    ALOGV("video packets %s, headers %s", mCopyVideo ? "copied where possible" : "all re-encoded",
          mMuxer.inbandHeaders() ? "in the stream" : "in the container");
    mReencoder.setEncoder(std::move(encoder));
    mReencoder.setSink(this);
    return finishPrepare();
}

int VideoTrimer::finishPrepare() {
    int ret;
    if (mSrcAudioIndex >= 0) {
        ret = mMuxer.addAudioStream(mInput.audioStream());
        if (ret != 0) {
            return ret;
        }
    }
    ret = mMuxer.writeHeader();
    if (ret != 0) {
        return ret;
    }
    ALOGV("prepare end ");
    return 0;
}

void VideoTrimer::getSyncTime(int64_t timestamp) {
    if (!mInput.isOpen() || mSrcVideoIndex < 0) {
        return;
    }
    TrimInput::CutScan scan = mInput.scanCut(timestamp, true, kForever);
    mFirstSyncTime = scan.keyBefore;
    mSecondSyncTime = scan.keyAfter;
    ALOGV("VideoTrimer::setTrimParam first sync time %lld", static_cast<long long>(mFirstSyncTime));
    ALOGV("VideoTrimer::setTrimParam second sync time %lld", static_cast<long long>(mSecondSyncTime));
}

int VideoTrimer::startTrim(int mode) {
    ALOGV("startTrim");
    if (!mMuxer.headerWritten() || mTrimDone) {
        ALOGE("startTrim: %s", mTrimDone ? "the trim has run already" : "not prepared");
        return -1;
    }
    mTrimDone = true;
    AVFormatContext* in = mInput.context();

    const AVStream* inVideo = in->streams[mSrcVideoIndex];
    const AVRational vtb = inVideo->time_base;
    int timeBase = vtb.num != 0 ? vtb.den / vtb.num : 0;
    ALOGV("video timeBase %d", timeBase);
    // Times count from the first video timestamp. The start rounds up to a
    // tick (a frame at or after it is the first kept), the end down (a frame
    // at or before it is the last kept).
    mOrigin = inVideo->start_time != kNoTime ? inVideo->start_time : 0;
    mVideoStartPTS = addSaturated(mOrigin, usToTicks(mStartTime, vtb, AV_ROUND_UP));
    mVideoStopPTS = addSaturated(mOrigin, usToTicks(mEndTime, vtb, AV_ROUND_DOWN));
    ALOGV("mVideoStartPTS = %lld mVideoStopPTS %lld", static_cast<long long>(mVideoStartPTS),
          static_cast<long long>(mVideoStopPTS));
    // Each output timestamp is computed from the frame count at the rate
    // chosen in prepare(), so rounding never accumulates.
    mInputFrameTicks = av_rescale_q(1, av_inv_q(mFrameRate), vtb);
    mInput.setFrameTicks(mInputFrameTicks);
    mVideoTicks = static_cast<int32_t>(av_rescale_q(1, av_inv_q(mFrameRate), mMuxer.videoStream()->time_base));
    ALOGV("frameRate = %f  Video Ticks %d", av_q2d(mFrameRate), mVideoTicks);

    if (mSrcAudioIndex >= 0) {
        const AVStream* inAudio = in->streams[mSrcAudioIndex];
        const AVRational atb = inAudio->time_base;
        int audioTimeBase = atb.num != 0 ? atb.den / atb.num : 0;
        ALOGV("audio timeBase %d", audioTimeBase);
        int64_t audioOrigin = av_rescale_q(mOrigin, vtb, atb);
        mAudioStartPTS = addSaturated(audioOrigin, usToTicks(mStartTime, atb, AV_ROUND_NEAR_INF));
        mAudioStopPTS = addSaturated(audioOrigin, usToTicks(mEndTime, atb, AV_ROUND_NEAR_INF));
        ALOGV("mAudioStartPTS = %lld mAudioStopPTS %lld", static_cast<long long>(mAudioStartPTS),
              static_cast<long long>(mAudioStopPTS));
        int sampleRate = inAudio->codecpar->sample_rate;
        int frameSize = inAudio->codecpar->frame_size;
        mAudioTicks = sampleRate != 0 && atb.num != 0
                          ? static_cast<int32_t>(av_rescale_q(frameSize, AVRational{1, sampleRate}, atb))
                          : 0;
        ALOGV("sampleRate = %d sampleLen %d  Audio Ticks %d", sampleRate, frameSize, mAudioTicks);
    }

    if (mKeepCodec) {
        mKeepCodecTrim.begin(mInputFrameTicks, mAudioTicks, [this](const AVPacket* p) {
            if (mRunningPass != nullptr) {
                reportProgress(*mRunningPass, p);
            }
        });
    }
    startProgress(0);
    if (mode == 1) {
        startTrimOuter();
    } else if (mode == 0) {
        startTrimInner();
    }
    mReencoder.drainEncoder();
    if (!mParts.empty()) {
        // What the encoder gave out after the last pass belongs to it.
        int64_t counted = 0;
        for (const PartCounts& part : mParts) {
            counted += part.encoded;
        }
        mParts.back().encoded += videoFramesEncoded() - counted;
    }
    int ret = mMuxer.finish();
    if (mProgressListener != nullptr && mLastPercent < 100) {
        mLastPercent = 100;
        mProgressListener->onTrimProgress(100);
    }
    ALOGV("startTrim end: %lld video frames copied, %lld encoded, %lld audio packets",
          static_cast<long long>(videoFramesCopied()), static_cast<long long>(videoFramesEncoded()),
          static_cast<long long>(audioPacketsWritten()));
    return ret;
}

void VideoTrimer::startTrimInner() {
    ALOGV("startTrimInner");
    AVFormatContext* in = mInput.context();
    const AVRational vtb = in->streams[mSrcVideoIndex]->time_base;

    TrimInput::CutScan start = mInput.scanCut(mVideoStartPTS, mCopyVideo, mVideoStopPTS);
    mFirstSyncTime = start.keyBefore;
    mSecondSyncTime = mCopyVideo ? start.keyAfter : kForever;
    ALOGV("VideoTrimer::setTrimParam first sync time %lld", static_cast<long long>(mFirstSyncTime));
    ALOGV("VideoTrimer::setTrimParam second sync time %lld", static_cast<long long>(mSecondSyncTime));
    if (start.firstFrame == kNoTime || start.firstFrame > mVideoStopPTS) {
        ALOGW("startTrimInner: no video frame in the range");
        return;
    }
    // The video kept covers [first frame, first frame after the range); the
    // audio kept is what starts inside that span.
    TrimInput::CutScan after = mInput.scanCut(mVideoStopPTS == kForever ? kForever : mVideoStopPTS + 1, false, kForever);

    Pass pass;
    pass.videoLow = mVideoStartPTS;
    pass.videoHigh = mVideoStopPTS;
    pass.copyFrom = mSecondSyncTime;
    pass.audioLow = kBeginning;
    pass.audioHigh = kForever;
    if (mSrcAudioIndex >= 0) {
        const AVRational atb = in->streams[mSrcAudioIndex]->time_base;
        pass.audioLow = av_rescale_q(start.firstFrame, vtb, atb);
        // Without a frame after the range, the range runs to the end of the
        // video, and so does the audio (not past it).
        int64_t videoTo = after.firstFrame != kNoTime ? after.firstFrame : after.videoEnd;
        pass.audioHigh = videoTo != kNoTime ? av_rescale_q(videoTo, vtb, atb) : kForever;
    }
    pass.progressFromUs = av_rescale_q(start.keyBefore != kNoTime ? start.keyBefore : mOrigin, vtb, kMicroseconds);
    int64_t progressEnd = after.firstFrame != kNoTime ? after.firstFrame
                          : after.videoEnd != kNoTime ? after.videoEnd
                                                      : start.firstFrame;
    pass.progressToUs = av_rescale_q(progressEnd, vtb, kMicroseconds);
    startProgress(std::max<int64_t>(1, pass.progressToUs - pass.progressFromUs));

    int64_t key = mInput.seekToKeyFrameAtOrBefore(mVideoStartPTS);
    ALOGV("startTrimInner start time %lld", static_cast<long long>(key));
    ALOGV("mpDstFormatCtx timeScale %lld", static_cast<long long>(mMuxer.videoStream()->time_base.den));
    runPass(pass);
}

void VideoTrimer::startTrimOuter() {
    ALOGV("startTrimOuter");
    AVFormatContext* in = mInput.context();
    const AVStream* inVideo = in->streams[mSrcVideoIndex];
    const AVRational vtb = inVideo->time_base;
    const AVRational atb = mSrcAudioIndex >= 0 ? in->streams[mSrcAudioIndex]->time_base : AVRational{1, 1};

    // The left part ends before the first frame at or after the start; the
    // right part resumes with the first frame at or after the end.
    // An end before the start removes nothing (and repeats nothing).
    int64_t resumeTicks = std::max(mVideoStartPTS, addSaturated(mOrigin, usToTicks(mEndTime, vtb, AV_ROUND_UP)));
    TrimInput::CutScan left = mInput.scanCut(mVideoStartPTS, false, kForever);
    TrimInput::CutScan right = mInput.scanCut(resumeTicks, mCopyVideo, kForever);
    // The audio kept is what starts within the video kept: from the first
    // frame to the start, and from the end to the end of the last frame.
    TrimInput::CutScan last = mInput.scanCut(kForever, false, kForever);
    mFirstSyncTime = right.keyBefore;
    mSecondSyncTime = mCopyVideo ? right.keyAfter : kForever;
    ALOGV("VideoTrimer::setTrimParam first sync time %lld", static_cast<long long>(mFirstSyncTime));
    ALOGV("VideoTrimer::setTrimParam second sync time %lld", static_cast<long long>(mSecondSyncTime));

    int64_t durationUs = in->duration != kNoTime ? in->duration : 0;
    if (inVideo->duration != kNoTime) {
        durationUs = std::max(durationUs, av_rescale_q(inVideo->duration, vtb, kMicroseconds));
    }
    int64_t originUs = av_rescale_q(mOrigin, vtb, kMicroseconds);

    Pass leftPass;
    leftPass.videoLow = kBeginning;
    leftPass.videoHigh = addSaturated(mVideoStartPTS, -1);
    leftPass.copyFrom = mCopyVideo ? kBeginning : kForever;
    leftPass.audioLow = av_rescale_q(mOrigin, vtb, atb);
    leftPass.audioHigh = left.firstFrame != kNoTime ? av_rescale_q(left.firstFrame, vtb, atb) : kForever;
    leftPass.progressFromUs = originUs;
    leftPass.progressToUs = left.firstFrame != kNoTime ? av_rescale_q(left.firstFrame, vtb, kMicroseconds)
                                                       : originUs + durationUs;

    Pass rightPass;
    rightPass.videoLow = resumeTicks;
    rightPass.videoHigh = kForever;
    rightPass.copyFrom = mSecondSyncTime;
    rightPass.audioLow = right.firstFrame != kNoTime ? av_rescale_q(right.firstFrame, vtb, atb) : kForever;
    rightPass.audioHigh = last.videoEnd != kNoTime ? av_rescale_q(last.videoEnd, vtb, atb) : kForever;
    rightPass.progressFromUs = av_rescale_q(right.keyBefore != kNoTime ? right.keyBefore : mOrigin, vtb, kMicroseconds);
    rightPass.progressToUs = std::max(rightPass.progressFromUs + 1, originUs + durationUs);

    bool haveRight = right.firstFrame != kNoTime;
    int64_t total = std::max<int64_t>(0, leftPass.progressToUs - leftPass.progressFromUs);
    if (haveRight) {
        total += rightPass.progressToUs - rightPass.progressFromUs;
    }
    startProgress(std::max<int64_t>(1, total));

    mInput.seekToStart();
    ALOGV("startTrimOuter start time %lld", static_cast<long long>(mOrigin));
    runPass(leftPass);
    ALOGV("aaaaaaaaaaaaa    %d", static_cast<int>(mMuxer.videoFramesWritten()));
    finishPassProgress(leftPass);

    if (haveRight) {
        mInput.seekToKeyFrameAtOrBefore(resumeTicks);
        runPass(rightPass);
    }
    ALOGV("break when file end ");
}

void VideoTrimer::runPass(const Pass& pass) {
    const int64_t copiedBefore = videoFramesCopied();
    const int64_t encodedBefore = videoFramesEncoded();
    if (mKeepCodec) {
        mRunningPass = &pass;
        mKeepCodecTrim.runPart(KeepCodecTrim::Part{pass.videoLow, pass.videoHigh, pass.audioLow, pass.audioHigh});
        mRunningPass = nullptr;
    } else {
        runCopyOrEncodePass(pass);
    }
    PartCounts part{videoFramesCopied() - copiedBefore, videoFramesEncoded() - encodedBefore};
    if (part.copied + part.encoded > 0 || (!mKeepCodec && mReencoder.encoderPending())) {
        mParts.push_back(part);
    }
}

void VideoTrimer::runCopyOrEncodePass(const Pass& pass) {
    mReencoder.setKeepWindow(pass.videoLow, pass.videoHigh);
    mProgressPassUs = 0;
    bool videoDone = false;
    bool audioDone = mSrcAudioIndex < 0;
    bool seenKey = false;
    bool failed = false;
    while (!(videoDone && audioDone) && !failed) {
        if (mInput.readPacket() < 0) {
            ALOGV("trim loop break when file end ");
            break;
        }
        AVPacket* p = mInput.packet();
        if (p->stream_index == mSrcVideoIndex) {
            if (videoDone) {
                continue;
            }
            int64_t order = packetOrder(p);
            if (order != kNoTime && order > pass.videoHigh) {
                // Every later packet shows a picture after the range.
                ALOGV("trim loop break when video Packet.pts %lld", static_cast<long long>(p->pts));
                videoDone = true;
                continue;
            }
            if (!seenKey && !isKey(p)) {
                continue;
            }
            seenKey = true;
            ALOGV("video Packet.pts %lld", static_cast<long long>(p->pts));
            int64_t t = packetTime(p);
            if (mCopyVideo && t != kNoTime && t >= pass.copyFrom) {
                if (mReencoder.decoderPrimed() || mReencoder.encoderPending()) {
                    flushCodec();
                }
                if (t >= pass.videoLow) {
                    mMuxer.writeVideoPacket(p, TrimMuxer::Source::Input);
                }
            } else if (mReencoder.reencodePacket(p) < 0) {
                failed = true;
            }
            reportProgress(pass, p);
        } else if (p->stream_index == mSrcAudioIndex) {
            if (audioDone) {
                continue;
            }
            int64_t t = packetTime(p);
            if (t != kNoTime && t >= pass.audioHigh) {
                ALOGV("trim loop break when audio Packet.pts %lld", static_cast<long long>(p->pts));
                audioDone = true;
                continue;
            }
            // Priming samples the decoder is told to drop are not media.
            if ((p->flags & AV_PKT_FLAG_DISCARD) == 0 && t != kNoTime && t >= pass.audioLow) {
                writeAudioPacket(p);
            }
            reportProgress(pass, p);
        }
    }
    av_packet_unref(mInput.packet());
    mReencoder.drainDecoder();
}

int VideoTrimer::writeEncodedPacket(AVPacket* packet) {
    return mMuxer.writeVideoPacket(packet, TrimMuxer::Source::Encoder);
}

void VideoTrimer::writeAudioPacket(AVPacket* packet) {
    mMuxer.writeAudioPacket(packet, mInput.audioStream()->time_base, mAudioTicks);
}

void VideoTrimer::flushCodec() {
    if (!mReencoder.decoder() || !mReencoder.encoder()) {
        return;
    }
    mReencoder.drainDecoder();
    mReencoder.drainEncoder();
}

void VideoTrimer::flushCodec(AVFormatContext* fmt, unsigned int streamIndex) {
    AVCodecContext* enc = mReencoder.encoder();
    if (fmt == nullptr || fmt != mMuxer.context() || static_cast<int>(streamIndex) != mMuxer.videoIndex() ||
        enc == nullptr) {
        return;
    }
    if ((enc->codec->capabilities & AV_CODEC_CAP_DELAY) == 0) {
        ALOGV("Flush Encoder: CODEC_CAP_DELAY not support");
        return;
    }
    ALOGV("Flush Encoder: CODEC_CAP_DELAY  support");
    mReencoder.drainEncoder();
}

std::string VideoTrimer::videoCodecName() const {
    const AVStream* st = mMuxer.videoStream();
    return st != nullptr ? avcodec_get_name(st->codecpar->codec_id) : "";
}

int64_t VideoTrimer::outputDurationUs() const { return mMuxer.outputDurationUs(); }

int64_t VideoTrimer::inputDurationUs() const {
    if (!mInput.isOpen()) {
        return 0;
    }
    const int64_t d = mInput.context()->duration;
    return d != kNoTime ? av_rescale_q(d, AV_TIME_BASE_Q, kMicroseconds) : kNoTime;
}

int64_t VideoTrimer::inputStartUs() const {
    if (!mInput.isOpen()) {
        return 0;
    }
    const int64_t t = mInput.context()->start_time;
    return t != kNoTime ? av_rescale_q(t, AV_TIME_BASE_Q, kMicroseconds) : kNoTime;
}

int64_t VideoTrimer::videoOriginUs() const {
    if (!mInput.isOpen() || mSrcVideoIndex < 0) {
        return 0;
    }
    // The origin startTrim counts from.
    const AVStream* st = mInput.videoStream();
    return st->start_time != kNoTime ? av_rescale_q(st->start_time, st->time_base, kMicroseconds) : 0;
}

void VideoTrimer::startProgress(int64_t totalUs) {
    mProgressTotalUs = totalUs;
    mProgressDoneUs = 0;
    mProgressPassUs = 0;
}

void VideoTrimer::reportProgress(const Pass& pass, const AVPacket* packet) {
    if (mProgressListener == nullptr || mProgressTotalUs <= 0) {
        return;
    }
    int64_t t = packetTime(packet);
    if (t == kNoTime) {
        return;
    }
    int64_t us = av_rescale_q(t, mInput.context()->streams[packet->stream_index]->time_base, kMicroseconds);
    int64_t span = pass.progressToUs - pass.progressFromUs;
    int64_t done = std::clamp<int64_t>(us - pass.progressFromUs, 0, std::max<int64_t>(0, span));
    mProgressPassUs = std::max(mProgressPassUs, done);
    int percent = static_cast<int>(std::min<int64_t>(99, (mProgressDoneUs + mProgressPassUs) * 100 / mProgressTotalUs));
    if (percent > mLastPercent) {
        mLastPercent = percent;
        mProgressListener->onTrimProgress(percent);
    }
}

void VideoTrimer::finishPassProgress(const Pass& pass) {
    mProgressDoneUs += std::max<int64_t>(0, pass.progressToUs - pass.progressFromUs);
    mProgressPassUs = 0;
}

void VideoTrimer::release() {
    ALOGV("VideoTrimer::release");
    mListener.reset();
    mReencoder.release();
    mInput.close();
    mMuxer.release();
}
