#include "trimmer/VideoTrimer.h"

#include <android/log.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstring>

extern "C" {
#include <libavutil/imgutils.h>
#include <libavutil/mathematics.h>
#include <libavutil/opt.h>
}

#include "Common/StreamRotation.h"
#include "NativeEventPostListener.h"
#include "trimmer/TrimProgressListener.h"

#define LOG_TAG "meeeeNativeVideoTrimer"
#define ALOGV(...) __android_log_print(ANDROID_LOG_VERBOSE, LOG_TAG, __VA_ARGS__)
#define ALOGW(...) __android_log_print(ANDROID_LOG_WARN, LOG_TAG, __VA_ARGS__)
#define ALOGE(...) __android_log_print(ANDROID_LOG_ERROR, LOG_TAG, __VA_ARGS__)

namespace {

constexpr int64_t kNoTime = AV_NOPTS_VALUE;
constexpr int64_t kForever = INT64_MAX;
constexpr int64_t kBeginning = INT64_MIN;
constexpr AVRational kMicroseconds = {1, 1000000};
constexpr AVRational kEncoderTimeBase = {1, 30};

// The time a packet stands for: its presentation time, or its decoding time
// when the container gives none.
int64_t packetTime(const AVPacket* p) { return p->pts != kNoTime ? p->pts : p->dts; }

// The time before which no later packet can show a picture: its decoding
// time (presentation never precedes decoding).
int64_t packetOrder(const AVPacket* p) { return p->dts != kNoTime ? p->dts : p->pts; }

bool isKey(const AVPacket* p) { return (p->flags & AV_PKT_FLAG_KEY) != 0; }

// a + b, held at the int64 limits (times given from Java may be anything).
int64_t addSaturated(int64_t a, int64_t b) {
    int64_t sum;
    if (__builtin_add_overflow(a, b, &sum)) {
        return b > 0 ? INT64_MAX : INT64_MIN;
    }
    return sum;
}

// A time in microseconds as stream ticks, rounded as asked and held at the
// int64 limits.
int64_t usToTicks(int64_t us, AVRational tb, int rounding) {
    return av_rescale_q_rnd(us, kMicroseconds, tb, static_cast<AVRounding>(rounding | AV_ROUND_PASS_MINMAX));
}

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

VideoTrimer::VideoTrimer(const char* inputPath, const char* outputPath)
    : mDecoder(nullptr),
      mDstAudioStream(nullptr),
      mDstVideoStream(nullptr),
      mSrcAudioIndex(-1),
      mDstAudioIndex(-1),
      mSrcVideoIndex(-1),
      mDstVideoIndex(-1),
      mStartTime(0),
      mEndTime(0),
      mVideoStartPTS(-1),
      mVideoStopPTS(-1),
      mAudioStartPTS(-1),
      mAudioStopPTS(-1),
      mFirstSyncTime(0),
      mSecondSyncTime(0),
      mVideoTicks(0),
      mNextVideoPts(0),
      mAudioTicks(0),
      mNextAudioPts(0),
      mInputPath(inputPath != nullptr ? inputPath : ""),
      mOutputPath(outputPath != nullptr ? outputPath : ""),
      mProgressListener(nullptr),
      mHeaderWritten(false),
      mTrimDone(false),
      mCopyVideo(false),
      mInbandHeaders(false),
      mActiveHeader(HeaderSource::Encoder),
      mOrigin(0),
      mFrameRate{30, 1},
      mInputFrameTicks(0),
      mKeepLow(kBeginning),
      mKeepHigh(kForever),
      mDecoderPrimed(false),
      mEncoderUsed(false),
      mEncoderDrained(false),
      mEncoderFramePts(0),
      mVideoFramesWritten(0),
      mVideoFramesCopied(0),
      mVideoFramesEncoded(0),
      mAudioPacketsWritten(0),
      mAudioWrittenUs(0),
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
    if (mpSrcFormatCtx) {
        ALOGE("prepare: already prepared");
        return -1;
    }
    AVFormatContext* input = nullptr;
    if (avformat_open_input(&input, mInputPath.c_str(), nullptr, nullptr) != 0) {
        ALOGV("Couldn't open input stream");
        return -1;
    }
    mpSrcFormatCtx.reset(input);
    if (avformat_find_stream_info(input, nullptr) < 0) {
        ALOGV("Couldn't find stream info");
        return -2;
    }

    for (unsigned int i = 0; i < input->nb_streams; ++i) {
        const AVStream* st = input->streams[i];
        if (st->codecpar->codec_type == AVMEDIA_TYPE_VIDEO) {
            // A cover picture is not the video.
            if ((st->disposition & AV_DISPOSITION_ATTACHED_PIC) == 0) {
                mSrcVideoIndex = static_cast<int32_t>(i);
            }
        } else if (st->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            mSrcAudioIndex = static_cast<int32_t>(i);
        }
    }
    if (mSrcVideoIndex == -1) {
        ALOGV("can't find any video stream. ");
    }
    if (mSrcAudioIndex == -1) {
        ALOGV("can't find any audio stream. ");
    }
    if (mSrcVideoIndex == -1) {
        // The output is built around its video stream; audio alone is not
        // trimmed.
        return -3;
    }

    AVStream* inVideo = input->streams[mSrcVideoIndex];
    int rotation = StreamRotation::read(inVideo);
    mDecoder = avcodec_find_decoder(inVideo->codecpar->codec_id);
    if (mDecoder == nullptr) {
        ALOGV("Codec not found encoder. ");
        return -3;
    }
    mDecoderContext.reset(avcodec_alloc_context3(mDecoder));
    if (!mDecoderContext || avcodec_parameters_to_context(mDecoderContext.get(), inVideo->codecpar) < 0) {
        ALOGV("Could not open encoder. ");
        return -4;
    }
    mDecoderContext->pkt_timebase = inVideo->time_base;
    // One decoding thread per core: re-encoding a whole range is bound by
    // decoding as much as by encoding (libavcodec's default is one thread).
    mDecoderContext->thread_count = 0;
    if (avcodec_open2(mDecoderContext.get(), mDecoder, nullptr) < 0) {
        ALOGV("Could not open encoder. ");
        return -4;
    }

    // Writing over the input while reading it would destroy it.
    if (sameFile(mInputPath, mOutputPath)) {
        ALOGV("Failed to open output file!");
        return -5;
    }
    AVFormatContext* output = nullptr;
    if (avformat_alloc_output_context2(&output, nullptr, nullptr, ".mp4") < 0 || output == nullptr) {
        ALOGV("avformat_alloc_output_context2 Failed ! ");
        return -5;
    }
    mpDstFormatCtx.reset(output);
    // Opened for writing only: that truncates an existing file, which a
    // read-write open would not (its old tail would stay behind the new file).
    if (avio_open(&output->pb, mOutputPath.c_str(), AVIO_FLAG_WRITE) < 0) {
        ALOGV("Failed to open output file!");
        return -5;
    }
    mDstVideoStream = avformat_new_stream(output, nullptr);
    if (mDstVideoStream == nullptr) {
        ALOGV("avformat_new_stream Failed! ");
        return -5;
    }
    if (StreamRotation::write(mDstVideoStream, rotation) < 0) {
        ALOGV("set angle  Failed! ");
    }
    // The output runs at the input's frame rate (29.97 stays 30000/1001).
    // It keeps the input's time base when one frame is a whole number of its
    // ticks, and otherwise takes one frame as its unit, so that evenly spaced
    // timestamps stay exact.
    mFrameRate = av_guess_frame_rate(input, inVideo, nullptr);
    if (mFrameRate.num <= 0 || mFrameRate.den <= 0) {
        mFrameRate = AVRational{30, 1};
    }
    const AVRational inTb = inVideo->time_base;
    bool wholeTicks = inTb.num > 0 && (static_cast<int64_t>(inTb.den) * mFrameRate.den) %
                                              (static_cast<int64_t>(inTb.num) * mFrameRate.num) == 0;
    mDstVideoStream->time_base = wholeTicks ? inTb : av_inv_q(mFrameRate);
    mDstVideoIndex = mDstVideoStream->index;

    const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_MPEG4);
    if (encoder == nullptr) {
        ALOGV("Can not find encoder AV_CODEC_ID_MPEG4.....!  ");
        return -6;
    }
    mEncoderContext.reset(avcodec_alloc_context3(encoder));
    if (!mEncoderContext) {
        ALOGV("Failed to open encoder!  ");
        return -7;
    }
    AVCodecContext* enc = mEncoderContext.get();
    enc->codec_id = AV_CODEC_ID_MPEG4;
    enc->codec_type = AVMEDIA_TYPE_VIDEO;
    enc->pix_fmt = AV_PIX_FMT_YUV420P;
    enc->width = mDecoderContext->width;
    enc->height = mDecoderContext->height;
    enc->time_base = kEncoderTimeBase;
    enc->pkt_timebase = kEncoderTimeBase;
    enc->ticks_per_frame = 1;
    enc->bit_rate = 10000000;
    enc->gop_size = 30;
    enc->qmin = 3;
    enc->qmax = 5;
    enc->max_b_frames = 0;
    enc->thread_count = 6;
    AVRational sar = inVideo->sample_aspect_ratio.num > 0 ? inVideo->sample_aspect_ratio
                                                            : inVideo->codecpar->sample_aspect_ratio;
    if (sar.num > 0 && sar.den > 0) {
        enc->sample_aspect_ratio = sar;
        mDstVideoStream->sample_aspect_ratio = sar;
    }
    if (output->oformat->flags & AVFMT_GLOBALHEADER) {
        enc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    }
    // Options of other encoders; the MPEG-4 encoder has neither.
    av_opt_set(enc->priv_data, "preset", "slow", 0);
    av_opt_set(enc->priv_data, "tune", "zerolatency", 0);
    av_dump_format(output, 1, mOutputPath.c_str(), 1);
    if (avcodec_open2(enc, encoder, nullptr) < 0) {
        ALOGV("Failed to open encoder!  ");
        return -7;
    }
    if (avcodec_parameters_from_context(mDstVideoStream->codecpar, enc) < 0) {
        ALOGV("Failed to open encoder!  ");
        return -7;
    }
    mDstVideoStream->codecpar->codec_tag = 0;

    // Packets can be copied into the encoder's stream only from an MPEG-4
    // Part 2 input in decoding order equal to display order, with pictures of
    // the encoder's size and a known configuration header.
    const AVCodecParameters* inPar = inVideo->codecpar;
    mCopyVideo = inPar->codec_id == AV_CODEC_ID_MPEG4 && inPar->video_delay == 0 &&
                 mDecoderContext->has_b_frames == 0 && inPar->extradata_size > 0 && inPar->width == enc->width &&
                 inPar->height == enc->height;
    if (mCopyVideo) {
        mInputHeader.assign(inPar->extradata, inPar->extradata + inPar->extradata_size);
        mEncoderHeader.assign(enc->extradata, enc->extradata + enc->extradata_size);
        // When both describe the pictures the same way, one header in the
        // container serves both kinds of packets. Otherwise the container
        // carries the input's (copied packets stay byte for byte what they
        // were) and each run of packets of the other kind starts with its
        // own header in the stream.
        mInbandHeaders = withoutUserData(mInputHeader) != withoutUserData(mEncoderHeader);
        if (mInbandHeaders) {
            AVCodecParameters* outPar = mDstVideoStream->codecpar;
            av_freep(&outPar->extradata);
            outPar->extradata_size = 0;
            outPar->extradata = static_cast<uint8_t*>(av_mallocz(mInputHeader.size() + AV_INPUT_BUFFER_PADDING_SIZE));
            if (outPar->extradata == nullptr) {
                ALOGV("Failed to open encoder!  ");
                return -7;
            }
            memcpy(outPar->extradata, mInputHeader.data(), mInputHeader.size());
            outPar->extradata_size = static_cast<int>(mInputHeader.size());
            mActiveHeader = HeaderSource::Input;
        }
    }
    ALOGV("video packets %s, headers %s", mCopyVideo ? "copied where possible" : "all re-encoded",
          mInbandHeaders ? "in the stream" : "in the container");

    if (mSrcAudioIndex >= 0) {
        const AVStream* inAudio = input->streams[mSrcAudioIndex];
        mDstAudioStream = avformat_new_stream(output, nullptr);
        if (mDstAudioStream == nullptr) {
            ALOGE("audio Codec Context copy error");
            return -8;
        }
        mDstAudioIndex = mDstAudioStream->index;
        if (avcodec_parameters_copy(mDstAudioStream->codecpar, inAudio->codecpar) < 0) {
            ALOGE("audio Codec Context copy error");
            return -8;
        }
        mDstAudioStream->codecpar->codec_tag = 0;
        mDstAudioStream->time_base = inAudio->time_base;
    }
    ALOGE("mDstAudioIndex %d", mDstAudioIndex);
    if (avformat_write_header(output, nullptr) < 0) {
        ALOGE("write_header error");
        return -9;
    }
    mHeaderWritten = true;

    mPacket.reset(av_packet_alloc());
    mEncodedPacket.reset(av_packet_alloc());
    mHeaderPacket.reset(av_packet_alloc());
    mFrame.reset(av_frame_alloc());
    for (auto& f : mScaledFrames) {
        f.reset(av_frame_alloc());
    }
    if (!mPacket || !mEncodedPacket || !mHeaderPacket || !mFrame || !mScaledFrames[0] || !mScaledFrames[1] ||
        !mScaledFrames[2]) {
        ALOGE("out of memory");
        return -9;
    }
    ALOGV("prepare end ");
    return 0;
}

int VideoTrimer::readPacket() {
    for (;;) {
        av_packet_unref(mPacket.get());
        int ret = av_read_frame(mpSrcFormatCtx.get(), mPacket.get());
        switch (mReadGuard.onRead(ret, mpSrcFormatCtx.get())) {
        case ReadProgressGuard::READ_PACKET: return ret;
        case ReadProgressGuard::READ_RETRY: break;
        default: return ret < 0 ? ret : AVERROR_EOF;
        }
    }
}

// Positions the input at its very beginning; returns the first video key
// frame's time.
int64_t VideoTrimer::seekToStart() {
    AVStream* st = mpSrcFormatCtx->streams[mSrcVideoIndex];
    int64_t ts = st->start_time != kNoTime ? st->start_time : 0;
    if (avformat_index_get_entries_count(st) > 0) {
        ts = std::min(ts, avformat_index_get_entry(st, 0)->timestamp);
    }
    if (av_seek_frame(mpSrcFormatCtx.get(), mSrcVideoIndex, ts, AVSEEK_FLAG_BACKWARD) < 0) {
        avformat_seek_file(mpSrcFormatCtx.get(), -1, INT64_MIN, 0, 0, 0);
    }
    return ts;
}

// Reads to the first video key frame and returns its time (kNoTime at the
// end of the input).
int64_t VideoTrimer::firstVideoKeyPts() {
    while (readPacket() >= 0) {
        if (mPacket->stream_index == mSrcVideoIndex && isKey(mPacket.get())) {
            int64_t t = packetTime(mPacket.get());
            av_packet_unref(mPacket.get());
            return t;
        }
    }
    av_packet_unref(mPacket.get());
    return kNoTime;
}

// Seeks so that reading resumes at the key frame at or before `target`
// (video ticks) and returns that key frame's time. Demuxers that seek by
// decoding time, or by a coarse index, may land on a key frame shown after
// the target; then the seek steps further back, and at worst starts over.
int64_t VideoTrimer::seekToKeyFrameAtOrBefore(int64_t target) {
    AVFormatContext* in = mpSrcFormatCtx.get();
    const AVRational tb = in->streams[mSrcVideoIndex]->time_base;
    const int64_t oneSecond = std::max<int64_t>(1, av_rescale_q(1, AVRational{1, 1}, tb));
    int64_t seekTs = target;
    for (int attempt = 0; attempt < 6; ++attempt) {
        if (av_seek_frame(in, mSrcVideoIndex, seekTs, AVSEEK_FLAG_BACKWARD) < 0) {
            break;
        }
        int64_t key = firstVideoKeyPts();
        if (key == kNoTime) {
            break;
        }
        if (key <= target) {
            av_seek_frame(in, mSrcVideoIndex, seekTs, AVSEEK_FLAG_BACKWARD);
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

VideoTrimer::CutScan VideoTrimer::scanCut(int64_t target, bool findKeyAfter, int64_t keyLimit) {
    CutScan scan{kNoTime, kNoTime, kForever, kNoTime};
    scan.keyBefore = seekToKeyFrameAtOrBefore(target);
    bool seenKey = false;
    while (readPacket() >= 0) {
        const AVPacket* p = mPacket.get();
        if (p->stream_index != mSrcVideoIndex) {
            continue;
        }
        if (!seenKey && !isKey(p)) {
            continue;
        }
        seenKey = true;
        int64_t t = packetTime(p);
        if (t != kNoTime) {
            int64_t end = t + (p->duration > 0 ? p->duration : mInputFrameTicks);
            scan.videoEnd = scan.videoEnd == kNoTime ? end : std::max(scan.videoEnd, end);
        }
        if (t != kNoTime && t >= target) {
            if (scan.firstFrame == kNoTime || t < scan.firstFrame) {
                scan.firstFrame = t;
            }
            if (findKeyAfter && isKey(p) && scan.keyAfter == kForever) {
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

void VideoTrimer::getSyncTime(int64_t timestamp) {
    if (!mpSrcFormatCtx || mSrcVideoIndex < 0) {
        return;
    }
    CutScan scan = scanCut(timestamp, true, kForever);
    mFirstSyncTime = scan.keyBefore;
    mSecondSyncTime = scan.keyAfter;
    ALOGV("VideoTrimer::setTrimParam first sync time %lld", static_cast<long long>(mFirstSyncTime));
    ALOGV("VideoTrimer::setTrimParam second sync time %lld", static_cast<long long>(mSecondSyncTime));
}

int VideoTrimer::startTrim(int mode) {
    ALOGV("startTrim");
    if (!mHeaderWritten || mTrimDone) {
        ALOGE("startTrim: %s", mTrimDone ? "the trim has run already" : "not prepared");
        return -1;
    }
    mTrimDone = true;
    AVFormatContext* in = mpSrcFormatCtx.get();

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
    mVideoTicks = static_cast<int32_t>(av_rescale_q(1, av_inv_q(mFrameRate), mDstVideoStream->time_base));
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

    startProgress(0);
    if (mode == 1) {
        startTrimOuter();
    } else if (mode == 0) {
        startTrimInner();
    }
    if (mEncoderUsed && !mEncoderDrained) {
        drainEncoder();
    }
    int ret = av_write_trailer(mpDstFormatCtx.get());
    if (mProgressListener != nullptr && mLastPercent < 100) {
        mLastPercent = 100;
        mProgressListener->onTrimProgress(100);
    }
    ALOGV("startTrim end: %lld video frames copied, %lld encoded, %lld audio packets",
          static_cast<long long>(mVideoFramesCopied), static_cast<long long>(mVideoFramesEncoded),
          static_cast<long long>(mAudioPacketsWritten));
    return ret;
}

void VideoTrimer::startTrimInner() {
    ALOGV("startTrimInner");
    AVFormatContext* in = mpSrcFormatCtx.get();
    const AVRational vtb = in->streams[mSrcVideoIndex]->time_base;

    CutScan start = scanCut(mVideoStartPTS, mCopyVideo, mVideoStopPTS);
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
    CutScan after = scanCut(mVideoStopPTS == kForever ? kForever : mVideoStopPTS + 1, false, kForever);

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

    int64_t key = seekToKeyFrameAtOrBefore(mVideoStartPTS);
    ALOGV("startTrimInner start time %lld", static_cast<long long>(key));
    ALOGV("mpDstFormatCtx timeScale %lld", static_cast<long long>(mDstVideoStream->time_base.den));
    runPass(pass);
}

void VideoTrimer::startTrimOuter() {
    ALOGV("startTrimOuter");
    AVFormatContext* in = mpSrcFormatCtx.get();
    const AVStream* inVideo = in->streams[mSrcVideoIndex];
    const AVRational vtb = inVideo->time_base;
    const AVRational atb = mSrcAudioIndex >= 0 ? in->streams[mSrcAudioIndex]->time_base : AVRational{1, 1};

    // The left part ends before the first frame at or after the start; the
    // right part resumes with the first frame at or after the end.
    // An end before the start removes nothing (and repeats nothing).
    int64_t resumeTicks = std::max(mVideoStartPTS, addSaturated(mOrigin, usToTicks(mEndTime, vtb, AV_ROUND_UP)));
    CutScan left = scanCut(mVideoStartPTS, false, kForever);
    CutScan right = scanCut(resumeTicks, mCopyVideo, kForever);
    // The audio kept is what starts within the video kept: from the first
    // frame to the start, and from the end to the end of the last frame.
    CutScan last = scanCut(kForever, false, kForever);
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

    seekToStart();
    ALOGV("startTrimOuter start time %lld", static_cast<long long>(mOrigin));
    runPass(leftPass);
    ALOGV("aaaaaaaaaaaaa    %d", static_cast<int>(mVideoFramesWritten));
    finishPassProgress(leftPass);

    if (haveRight) {
        seekToKeyFrameAtOrBefore(resumeTicks);
        runPass(rightPass);
    }
    ALOGV("break when file end ");
}

void VideoTrimer::runPass(const Pass& pass) {
    mKeepLow = pass.videoLow;
    mKeepHigh = pass.videoHigh;
    mProgressPassUs = 0;
    bool videoDone = false;
    bool audioDone = mSrcAudioIndex < 0;
    bool seenKey = false;
    bool failed = false;
    while (!(videoDone && audioDone) && !failed) {
        if (readPacket() < 0) {
            ALOGV("trim loop break when file end ");
            break;
        }
        AVPacket* p = mPacket.get();
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
                if (mDecoderPrimed || (mEncoderUsed && !mEncoderDrained)) {
                    flushCodec();
                }
                if (t >= pass.videoLow) {
                    writeVideoPacket(p, HeaderSource::Input);
                }
            } else if (reencodePacket(p) < 0) {
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
    av_packet_unref(mPacket.get());
    drainDecoder();
}

int VideoTrimer::reencodePacket(AVPacket* packet) {
    int ret = avcodec_send_packet(mDecoderContext.get(), packet);
    mDecoderPrimed = true;
    if (ret < 0) {
        ALOGV("Decode Error. ");
        return ret;
    }
    while ((ret = avcodec_receive_frame(mDecoderContext.get(), mFrame.get())) == 0) {
        int encoded = encodeFrame(mFrame.get());
        av_frame_unref(mFrame.get());
        if (encoded < 0) {
            return encoded;
        }
    }
    if (ret != AVERROR(EAGAIN) && ret != AVERROR_EOF) {
        ALOGV("Decode Error. ");
        return ret;
    }
    return 0;
}

AVFrame* VideoTrimer::convertForEncoder(AVFrame* frame) {
    AVCodecContext* enc = mEncoderContext.get();
    if (frame->format == enc->pix_fmt && frame->width == enc->width && frame->height == enc->height) {
        return frame;
    }
    mScaler.reset(sws_getCachedContext(mScaler.release(), frame->width, frame->height,
                                       static_cast<AVPixelFormat>(frame->format), enc->width, enc->height,
                                       enc->pix_fmt, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!mScaler) {
        return nullptr;
    }
    // A picture the encoder no longer references; allocated once per slot.
    AVFrame* out = nullptr;
    for (auto& candidate : mScaledFrames) {
        if (candidate->buf[0] == nullptr || av_frame_is_writable(candidate.get())) {
            out = candidate.get();
            break;
        }
    }
    if (out == nullptr) {
        out = mScaledFrames[0].get();
        if (av_frame_make_writable(out) < 0) {
            return nullptr;
        }
    }
    if (out->buf[0] == nullptr) {
        out->format = enc->pix_fmt;
        out->width = enc->width;
        out->height = enc->height;
        if (av_frame_get_buffer(out, 0) < 0) {
            return nullptr;
        }
    }
    sws_scale(mScaler.get(), frame->data, frame->linesize, 0, frame->height, out->data, out->linesize);
    out->sample_aspect_ratio = frame->sample_aspect_ratio;
    return out;
}

int VideoTrimer::encodeFrame(AVFrame* frame) {
    int64_t pts = frame->best_effort_timestamp != kNoTime ? frame->best_effort_timestamp : frame->pts;
    if (pts != kNoTime && (pts < mKeepLow || pts > mKeepHigh)) {
        ALOGV("ignored decode result .... %lld", static_cast<long long>(pts));
        return 0;
    }
    if (mEncoderDrained) {
        // Cannot happen: a trim encodes one run before it drains.
        ALOGE("encoder Error %d", AVERROR_EOF);
        return AVERROR_EOF;
    }
    AVFrame* in = convertForEncoder(frame);
    if (in == nullptr) {
        ALOGE("encoder Error %d", AVERROR(ENOMEM));
        return AVERROR(ENOMEM);
    }
    in->pict_type = AV_PICTURE_TYPE_NONE;
    in->pts = mEncoderFramePts++;
    mEncoderUsed = true;
    int ret = avcodec_send_frame(mEncoderContext.get(), in);
    if (ret < 0) {
        ALOGV("encoder Error %d", ret);
        return ret;
    }
    while ((ret = avcodec_receive_packet(mEncoderContext.get(), mEncodedPacket.get())) == 0) {
        int w = writeVideoPacket(mEncodedPacket.get(), HeaderSource::Encoder);
        if (w >= 0) {
            ALOGV("av_write_frame by encoder success pts: %lld", static_cast<long long>(pts));
            ++mVideoFramesEncoded;
        } else {
            ALOGV("av_write_frame after encode Error %d", w);
        }
        av_packet_unref(mEncodedPacket.get());
    }
    if (ret != AVERROR(EAGAIN) && ret != AVERROR_EOF) {
        ALOGV("encoder Error %d", ret);
        return ret;
    }
    return 0;
}

void VideoTrimer::drainDecoder() {
    if (!mDecoderPrimed) {
        return;
    }
    mDecoderPrimed = false;
    AVCodecContext* dec = mDecoderContext.get();
    if (avcodec_send_packet(dec, nullptr) < 0) {
        ALOGV("flush Decode Error. ");
    } else {
        int ret;
        while ((ret = avcodec_receive_frame(dec, mFrame.get())) == 0) {
            int encoded = encodeFrame(mFrame.get());
            av_frame_unref(mFrame.get());
            if (encoded < 0) {
                break;
            }
        }
        if (ret != AVERROR_EOF && ret != 0) {
            ALOGV("flush Decode Error. ");
        }
        ALOGV(" decoder no more output .... ");
    }
    // Ready for the packets after the next seek.
    avcodec_flush_buffers(dec);
}

void VideoTrimer::drainEncoder() {
    if (!mEncoderUsed || mEncoderDrained) {
        return;
    }
    mEncoderDrained = true;
    AVCodecContext* enc = mEncoderContext.get();
    if (avcodec_send_frame(enc, nullptr) < 0) {
        ALOGV("Flush Encoder: ret<0");
        return;
    }
    for (;;) {
        int ret = avcodec_receive_packet(enc, mEncodedPacket.get());
        if (ret == AVERROR_EOF || ret == AVERROR(EAGAIN)) {
            ALOGV("Flush Encoder: gotFrame = 0");
            return;
        }
        if (ret < 0) {
            ALOGV("Flush Encoder: ret<0");
            return;
        }
        ALOGV("Flush Encoder: Succeed to encode 1 frame!\tsize:%5d ", mEncodedPacket->size);
        int w = writeVideoPacket(mEncodedPacket.get(), HeaderSource::Encoder);
        av_packet_unref(mEncodedPacket.get());
        if (w < 0) {
            return;
        }
        ++mVideoFramesEncoded;
    }
}

void VideoTrimer::flushCodec() {
    if (!mDecoderContext || !mEncoderContext) {
        return;
    }
    drainDecoder();
    drainEncoder();
}

void VideoTrimer::flushCodec(AVFormatContext* fmt, unsigned int streamIndex) {
    if (fmt == nullptr || fmt != mpDstFormatCtx.get() || static_cast<int>(streamIndex) != mDstVideoIndex ||
        !mEncoderContext) {
        return;
    }
    if ((mEncoderContext->codec->capabilities & AV_CODEC_CAP_DELAY) == 0) {
        ALOGV("Flush Encoder: CODEC_CAP_DELAY not support");
        return;
    }
    ALOGV("Flush Encoder: CODEC_CAP_DELAY  support");
    drainEncoder();
}

int VideoTrimer::writeVideoPacket(AVPacket* packet, HeaderSource source) {
    AVPacket* out = packet;
    if (mInbandHeaders && source != mActiveHeader) {
        // The first packet of a run from the other source (always a key
        // frame) carries that source's configuration in front of it.
        const std::vector<uint8_t>& header = source == HeaderSource::Input ? mInputHeader : mEncoderHeader;
        if (!startsWithConfiguration(packet->data, packet->size)) {
            av_packet_unref(mHeaderPacket.get());
            int size = static_cast<int>(header.size()) + packet->size;
            if (av_new_packet(mHeaderPacket.get(), size) < 0 || av_packet_copy_props(mHeaderPacket.get(), packet) < 0) {
                av_packet_unref(mHeaderPacket.get());
                return AVERROR(ENOMEM);
            }
            memcpy(mHeaderPacket->data, header.data(), header.size());
            memcpy(mHeaderPacket->data + header.size(), packet->data, static_cast<size_t>(packet->size));
            out = mHeaderPacket.get();
        }
        mActiveHeader = source;
    }
    const AVRational frameDuration = av_inv_q(mFrameRate);
    const AVRational outTb = mDstVideoStream->time_base;
    int64_t pts = av_rescale_q(mVideoFramesWritten, frameDuration, outTb);
    int64_t next = av_rescale_q(mVideoFramesWritten + 1, frameDuration, outTb);
    out->pts = pts;
    out->dts = pts;
    out->duration = next - pts;
    out->stream_index = mDstVideoIndex;
    out->pos = -1;
    int ret = av_write_frame(mpDstFormatCtx.get(), out);
    if (out == mHeaderPacket.get()) {
        av_packet_unref(mHeaderPacket.get());
    }
    if (ret < 0) {
        if (source == HeaderSource::Input) {
            ALOGV("av_write_frame dricetly Error %d", ret);
        }
        return ret;
    }
    ++mVideoFramesWritten;
    mNextVideoPts = next;
    if (source == HeaderSource::Input) {
        ++mVideoFramesCopied;
        ALOGV("av_write_frame dricetly success");
    }
    return ret;
}

int VideoTrimer::writeAudioPacket(AVPacket* packet) {
    const AVRational inTb = mpSrcFormatCtx->streams[mSrcAudioIndex]->time_base;
    const AVRational outTb = mDstAudioStream->time_base;
    int64_t duration = packet->duration > 0 ? packet->duration : mAudioTicks;
    int64_t pts = av_rescale_q(mNextAudioPts, inTb, outTb);
    packet->pts = pts;
    packet->dts = pts;
    packet->duration = av_rescale_q(mNextAudioPts + duration, inTb, outTb) - pts;
    packet->stream_index = mDstAudioIndex;
    packet->pos = -1;
    int ret = av_write_frame(mpDstFormatCtx.get(), packet);
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

int64_t VideoTrimer::outputDurationUs() const {
    int64_t video = av_rescale_q(mVideoFramesWritten, av_inv_q(mFrameRate), kMicroseconds);
    return std::max(video, mAudioWrittenUs);
}

int64_t VideoTrimer::inputDurationUs() const {
    if (!mpSrcFormatCtx) {
        return 0;
    }
    const int64_t d = mpSrcFormatCtx->duration;
    return d != kNoTime ? av_rescale_q(d, AV_TIME_BASE_Q, kMicroseconds) : kNoTime;
}

int64_t VideoTrimer::inputStartUs() const {
    if (!mpSrcFormatCtx) {
        return 0;
    }
    const int64_t t = mpSrcFormatCtx->start_time;
    return t != kNoTime ? av_rescale_q(t, AV_TIME_BASE_Q, kMicroseconds) : kNoTime;
}

int64_t VideoTrimer::videoOriginUs() const {
    if (!mpSrcFormatCtx || mSrcVideoIndex < 0) {
        return 0;
    }
    // The origin startTrim counts from.
    const AVStream* st = mpSrcFormatCtx->streams[mSrcVideoIndex];
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
    int64_t us = av_rescale_q(t, mpSrcFormatCtx->streams[packet->stream_index]->time_base, kMicroseconds);
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
    mEncoderContext.reset();
    mDecoderContext.reset();
    mScaler.reset();
    for (auto& f : mScaledFrames) {
        f.reset();
    }
    mFrame.reset();
    mPacket.reset();
    mEncodedPacket.reset();
    mHeaderPacket.reset();
    mpSrcFormatCtx.reset();
    mpDstFormatCtx.reset();
    mDstAudioStream = nullptr;
    mDstVideoStream = nullptr;
    mHeaderWritten = false;
}
