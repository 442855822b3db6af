#include "editor/VideoItem.h"

#include <android/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>

#include "editor/JniThumbnailSink.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace {
const char* const kTag = "JNI_VideoItem";

#define LOGE(...) __android_log_print(ANDROID_LOG_ERROR, kTag, __VA_ARGS__)
#define LOGW(...) __android_log_print(ANDROID_LOG_WARN, kTag, __VA_ARGS__)

// The reader stays this far ahead of the decoding caller at most: enough to
// keep the decoder fed, little enough to stop soon after a cancel.
constexpr int kMaxQueuedBytes = 0xF00000;
constexpr int kMaxQueuedPackets = 6;
// How long the reader rests when it is that far ahead.
constexpr useconds_t kReaderRestUs = 10000;
// The first step back when a seek lands after the wanted key frame; each
// further step doubles it, up to the limit.
constexpr int kFirstStepBackMs = 1000;
// Drain calls that may follow one key packet before its picture comes out
// (a decoder's reorder delay plus its frame threads).
constexpr int kKeyFrameDrainCalls = 64;
constexpr int kMaxStepBackMs = 1 << 28;
// Drain attempts a single-target job may spend on a decoder that answers
// with nothing.
constexpr int kRetryBudget = 10;
// Packets a key-frame grab passes over before it gives up on finding a key
// frame after its seek.
constexpr int kKeyPacketBudget = 300;
// Decoder drain calls a key-frame grab allows for its picture to come out.
constexpr int kDrainBudget = 10;

int rgbaBytes(int width, int height) { return av_image_get_buffer_size(AV_PIX_FMT_RGBA, width, height, 1); }

bool isQuarterTurn(int rotation) { return rotation == 90 || rotation == 270; }
}  // namespace

VideoItem::VideoItem()
    : seekState(0), cancelled(false), keyFrameOnly(true), readerRunning(true), released(false), readerState(0),
      startTime(0), endTime(0), interval(0), outWidth(0), outHeight(0), count(0), retryBudget(kRetryBudget),
      mWorkingPacket(kavra::makeScopedAVPacket()), pendingFrames(0), scaleFlags(SWS_BICUBIC), mReaderThread(),
      mReaderStarted(false), mStopReader(false), mSingleThread(false) {
    mPacketQueue.start();
}

VideoItem::~VideoItem() {
    // Shutdown order: tell the reader to end, wake anyone on the queue, join
    // the reader, then drop what it queued. The base class closes the file
    // after this.
    cancelled = true;
    stopReader();
    mPacketQueue.abort();
    mPacketQueue.flush();
}

int VideoItem::setSource(const char* path, bool singleThread) {
    if (!operationMutex.tryLock()) {
        LOGW("setSource->tryluckMutex fail");
        return -1;
    }
    const char* shown = path != nullptr ? path : "(null)";
    {
        NativeMutexLock grab(mKeyFrameLock);
        mPath = path != nullptr ? path : "";
        mSingleThread = singleThread;
        mKeyFrameMedia.reset();
    }
    int result = 0;
    int ret = KavraMedia::setSource(path);
    if (ret < 0) {
        LOGE("setSource->setSource error:%d,path=%s", ret, shown);
        result = ret;
    }
    ret = KavraMedia::openVideoDecoder(singleThread);
    if (ret < 0) {
        LOGE("setSource->openVideoDecoder error:%d,path=%s", ret, shown);
        result = result < 0 ? result : ret;
    }
    ret = KavraMedia::prepare();
    if (ret < 0) {
        LOGE("setSource->prepare error:%d,path=%s", ret, shown);
        result = result < 0 ? result : ret;
    }
    operationMutex.unlock();
    return result;
}

void VideoItem::setItemParameters(int start, int end, int targetCount, int width, int height, bool keyOnly) {
    if (!operationMutex.tryLock()) {
        LOGW("setItemParameters->tryluckMutex fail");
        return;
    }
    startTime = start;
    endTime = end;
    count = targetCount;
    // 64-bit so that extreme arguments (count 0 with a huge range) stay
    // defined; the result is narrowed like the 32-bit original.
    int64_t span = static_cast<int64_t>(end) - start;
    interval = targetCount == 1 ? 0 : static_cast<int>(span / (static_cast<int64_t>(targetCount) - 1));
    if (width >= 1 && height >= 1) {
        outWidth = width;
        outHeight = height;
    } else {
        outWidth = codedWidth();
        outHeight = codedHeight();
    }
    // Point sampling once pictures are shrunk: thumbnails are small and
    // many, and bicubic filtering of a full picture costs more than it shows.
    if (static_cast<int64_t>(outWidth) * outHeight < static_cast<int64_t>(codedWidth()) * codedHeight()) {
        scaleFlags = SWS_POINT;
    }
    keyFrameOnly = keyOnly;
    operationMutex.unlock();
}

int VideoItem::targetTime(int index) const {
    return static_cast<int>(static_cast<int64_t>(startTime) + static_cast<int64_t>(interval) * index);
}

double VideoItem::frameTimeExactMs(AVFrame* frame) {
    AVStream* stream = videoStream();
    int64_t ts = frame->best_effort_timestamp;
    if (ts == AV_NOPTS_VALUE || stream == nullptr) {
        return 0.0;
    }
    return static_cast<double>(ts) * av_q2d(stream->time_base) * 1000.0;
}

int VideoItem::compareFrameTime(AVFrame* frame, int targetMs) {
    AVStream* stream = videoStream();
    int64_t ts = frame->best_effort_timestamp;
    if (ts == AV_NOPTS_VALUE || stream == nullptr) {
        return (0 > targetMs) - (0 < targetMs);
    }
    // Exact rational comparison: a frame at exactly the target must never
    // count as before or after it through rounding of a floating product.
    return av_compare_ts(ts, stream->time_base, targetMs, AVRational{1, 1000});
}

int VideoItem::frameTimeMs(AVFrame* frame) {
    return static_cast<int>(std::max(-2147483648.0, std::min(2147483647.0, frameTimeExactMs(frame))));
}

// ---------------------------------------------------------------------------
// Reader thread

void* VideoItem::readerEntry(void* item) {
    static_cast<VideoItem*>(item)->getVideoItemPacket();
    return nullptr;
}

bool VideoItem::startReader() {
    stopReader();
    mStopReader = false;
    if (pthread_create(&mReaderThread, nullptr, readerEntry, this) != 0) {
        // Without a reader the fetcher must not wait for packets.
        readerRunning = false;
        mPacketQueue.abort();
        setReaderState(2);
        return false;
    }
    mReaderStarted = true;
    return true;
}

void VideoItem::stopReader() {
    if (!mReaderStarted) {
        return;
    }
    mStopReader = true;
    pthread_join(mReaderThread, nullptr);
    mReaderStarted = false;
}

void VideoItem::setReaderState(int state) {
    NativeMutexLock lock(mReaderStateLock);
    readerState = state;
    mReaderStateChanged.notifyAll();
}

void VideoItem::waitWhileReaderState(int state) {
    NativeMutexLock lock(mReaderStateLock);
    while (readerState == state) {
        mReaderStateChanged.wait(mReaderStateLock);
    }
}

void VideoItem::getVideoItemPacket() {
    const int targets = count;
    AVStream* stream = videoStream();
    kavra::ScopedAVPacket packet = kavra::makeScopedAVPacket();
    kavra::ScopedAVPacket candidate = kavra::makeScopedAVPacket();
    if (targets > 0 && !cancelled && !mStopReader && stream != nullptr && packet && candidate) {
        const double timeBaseMs = av_q2d(stream->time_base) * 1000.0;
        const double firstMs = stream->start_time == AV_NOPTS_VALUE ? 0.0 : stream->start_time * timeBaseMs;
        const bool keyOnly = keyFrameOnly;
        int remaining = targets;
        int done = 0;
        int target = 0;

        // Finding the key frame at or before the target. Seeking lands on a
        // key frame by decode time (MP4) or on any packet near the time
        // (MPEG-TS), so the first key frame read can be presented after the
        // target; the reader then steps back, doubling the distance, until
        // it reads a key frame presented at or before the target, or until
        // it has reached the start of the file (there is nothing earlier).
        int stepBackMs = 0;
        bool steppedBack = false;
        // Key-frame mode after a step back: the latest key frame at or
        // before the target read so far; it is queued once a packet shows
        // that no later one can be.
        bool haveCandidate = false;
        // Exact mode: packets are queued from the key frame on.
        bool started = false;
        // Exact mode: the earliest presentation time at or after the target
        // among the packets queued so far. The target is served once a
        // packet's decode time reaches it: every later packet is presented
        // later still, so no frame between the target and this one is
        // missing from the queue (B-frames arrive after the frames they
        // precede on screen).
        int64_t firstAtOrAfterTicks = INT64_MAX;

        auto queue = [this](AVPacket* p) {
            if (mPacketQueue.put(p, 0) != 0) {
                av_packet_unref(p);
            }
        };
        // Seeks further back; false when the last seek already aimed well
        // before the first frame. A seek aimed just before the first frame
        // is not enough: demuxers that seek by estimate (MPEG-TS) can land a
        // second or more later, so one full step before the start is made.
        auto stepBack = [&]() {
            const int64_t soughtMs = static_cast<int64_t>(target) - stepBackMs;
            if (soughtMs < firstMs - kFirstStepBackMs || stepBackMs >= kMaxStepBackMs) {
                return false;
            }
            stepBackMs = stepBackMs == 0 ? kFirstStepBackMs : stepBackMs * 2;
            seekFrame(static_cast<int>(std::max<int64_t>(static_cast<int64_t>(target) - stepBackMs, INT32_MIN)), -1,
                      AVSEEK_FLAG_BACKWARD);
            steppedBack = true;
            return true;
        };
        auto finishTarget = [&]() {
            seekState = 0;
            ++done;
            return --remaining == 0;
        };

        for (;;) {
            if (seekState == 0) {
                target = targetTime(done);
                seekFrame(target, -1, AVSEEK_FLAG_BACKWARD);
                seekState = 2;
                stepBackMs = 0;
                steppedBack = false;
                haveCandidate = false;
                av_packet_unref(candidate.get());
                started = false;
                firstAtOrAfterTicks = INT64_MAX;
            }
            if (mPacketQueue.getSize() > kMaxQueuedBytes || mPacketQueue.getCount() >= kMaxQueuedPackets) {
                usleep(kReaderRestUs);
            } else {
                int ret = readFrame(packet.get());
                if (ret < 0) {
                    av_packet_unref(packet.get());
                    if (ret == AVERROR_EOF || isEndOfInput()) {
                        // The last key frame found still serves its target.
                        if (haveCandidate) {
                            queue(candidate.get());
                            finishTarget();
                            break;
                        }
                        // The seek landed after the last key frame (or
                        // past the data of a cut file): look further back.
                        const bool searching = keyOnly || !started;
                        if (!searching || !stepBack()) {
                            break;
                        }
                    }
                } else if (packet->stream_index != mVideoStreamIndex) {
                    av_packet_unref(packet.get());
                } else {
                    const bool key = packet->flags == AV_PKT_FLAG_KEY;
                    // Times stay in stream ticks and are compared with the
                    // target exactly: pts <= floor(target) in ticks is the
                    // same as pts * time base <= target, and likewise
                    // pts >= ceil(target) for at-or-after.
                    const int64_t presentTicks = packet->pts == AV_NOPTS_VALUE ? 0 : packet->pts;
                    const int64_t decodeTicks = packet->dts == AV_NOPTS_VALUE ? presentTicks : packet->dts;
                    const int64_t targetFloor =
                        av_rescale_q_rnd(target, AVRational{1, 1000}, stream->time_base, AV_ROUND_DOWN);
                    const int64_t targetCeil =
                        av_rescale_q_rnd(target, AVRational{1, 1000}, stream->time_base, AV_ROUND_UP);
                    bool finished = false;
                    if (keyOnly) {
                        if (!key) {
                            // Past the target in decode order: no later key
                            // frame can be presented at or before it.
                            if (haveCandidate && decodeTicks > targetFloor) {
                                queue(candidate.get());
                                finished = true;
                            }
                            av_packet_unref(packet.get());
                        } else if (presentTicks <= targetFloor && steppedBack) {
                            av_packet_unref(candidate.get());
                            av_packet_move_ref(candidate.get(), packet.get());
                            haveCandidate = true;
                        } else if (presentTicks <= targetFloor) {
                            queue(packet.get());
                            finished = true;
                        } else if (haveCandidate) {
                            queue(candidate.get());
                            av_packet_unref(packet.get());
                            finished = true;
                        } else if (stepBack()) {
                            av_packet_unref(packet.get());
                        } else {
                            queue(packet.get());
                            finished = true;
                        }
                    } else {
                        if (!started && key && (presentTicks <= targetFloor || !stepBack())) {
                            started = true;
                        }
                        if (!started) {
                            // Nothing before the key frame can be decoded.
                            av_packet_unref(packet.get());
                        } else {
                            if (presentTicks >= targetCeil) {
                                firstAtOrAfterTicks = std::min(firstAtOrAfterTicks, presentTicks);
                            }
                            queue(packet.get());
                            finished = decodeTicks >= firstAtOrAfterTicks;
                        }
                    }
                    if (finished) {
                        haveCandidate = false;
                        if (finishTarget()) {
                            break;
                        }
                    }
                }
            }
            if (cancelled || mStopReader) {
                break;
            }
        }
    }
    // The running flag drops before the queue is looked at: a fetcher that
    // still saw it set and waits on the queue is then either handed the
    // remaining packets or woken by the abort of an empty queue.
    readerRunning = false;
    if (mPacketQueue.getSize() == 0) {
        mPacketQueue.abort();
    }
    setReaderState(2);
}

// ---------------------------------------------------------------------------
// Frame fetcher

AVFrame* VideoItem::getPacketFrame(int index) {
    AVFrame* frame = pVideoFrame.get();
    AVPacket* packet = mWorkingPacket.get();
    if (frame == nullptr || packet == nullptr || videoStream() == nullptr) {
        return nullptr;
    }
    const bool keyOnly = keyFrameOnly;
    int got = 0;
    double target = -1.0;
    if (!cancelled) {
        target = targetTime(index);
        while (!cancelled) {
            int block = readerRunning ? -1 : 0;
            if (mPacketQueue.get(packet, block) < 0) {
                break;
            }
            if (mPacketQueue.isFlushPacket(packet)) {
                flushVideoDecoder();
                continue;
            }
            if (mPacketQueue.isEndPacket(packet)) {
                break;
            }
            decodeVideo(&got, packet);
            av_packet_unref(packet);
            if (!got && keyOnly) {
                // Each queued packet is the key frame of one target and
                // decodes on its own; a decoder that holds pictures back
                // for reordering is drained at once, so every target gets
                // the picture of its own packet. Left in the decoder, a
                // held-back picture would be handed to a later target
                // (and two targets close together queue the same key frame
                // twice, which such a decoder may not show twice).
                for (int i = 0; i < kKeyFrameDrainCalls && !got; ++i) {
                    av_packet_unref(packet);
                    decodeVideo(&got, packet);
                }
            }
            if (!got) {
                ++pendingFrames;
                continue;
            }
            if (keyOnly || compareFrameTime(frame, target) >= 0) {
                return frame;
            }
        }
    }

    // The queue is done: draw the pictures still held by the decoder.
    // pendingFrames counts them (packets that went in without a picture
    // coming out).
    if (pendingFrames == 0) {
        return cancelled ? nullptr : frame;
    }
    if (cancelled) {
        return nullptr;
    }
    // Whether this call has drawn a picture from the decoder: once the
    // decoder is empty, the last one drawn is the answer.
    bool drewPicture = false;
    for (;;) {
        av_packet_unref(packet);
        decodeVideo(&got, packet);
        // The pass is settled by the counting rule below unless a picture
        // decides it here. The rule counts decode calls rather than stopping
        // at the first picture at or after the target.
        bool counted = false;
        if (got) {
            drewPicture = true;
            if (keyOnly) {
                --pendingFrames;
                return cancelled ? nullptr : frame;
            }
            if (compareFrameTime(frame, target) < 0) {
                // The last picture is the answer when the file holds
                // nothing later.
                if (pendingFrames == 1) {
                    pendingFrames = 0;
                    return cancelled ? nullptr : frame;
                }
                --pendingFrames;
                counted = true;
            } else if (pendingFrames == 1) {
                pendingFrames = 0;
                return cancelled ? nullptr : frame;
            }
        }
        if (!counted) {
            if (count != 1) {
                if (--pendingFrames == 0) {
                    return cancelled ? nullptr : frame;
                }
            } else if (!got && drewPicture) {
                // A drained decoder gives nothing more: packets it dropped
                // (frames that referred to pictures before the seek) were
                // counted but never come out.
                pendingFrames = 0;
                return cancelled ? nullptr : frame;
            } else if (pendingFrames > 1) {
                --pendingFrames;
            } else {
                if (retryBudget == 0) {
                    return nullptr;
                }
                --retryBudget;
            }
        }
        if (cancelled) {
            return nullptr;
        }
    }
}

void VideoItem::cancel() {
    int state;
    {
        NativeMutexLock lock(mReaderStateLock);
        state = readerState;
    }
    cancelled = true;
    if (state == 1) {
        waitWhileReaderState(1);
    }
}

bool VideoItem::release() {
    if (!releaseMutex.tryLock()) {
        LOGW("trylock releaseMutex fail!");
        return false;
    }
    if (released) {
        releaseMutex.unlock();
        return false;
    }
    released = true;
    operationMutex.lock();  // a running strip finishes first
    cancel();
    operationMutex.unlock();
    releaseMutex.unlock();
    return true;
}

// ---------------------------------------------------------------------------
// Thumbnail strip

int VideoItem::get_thumbnaillist(JNIEnv* env, int* dst, int dstBytes, jobject callback) {
    JniThumbnailSink sink(env, callback);
    return getThumbnailList(dst, dstBytes, sink);
}

int VideoItem::getThumbnailList(int* dst, int dstBytes, ThumbnailSink& sink) {
    if (!operationMutex.tryLock()) {
        LOGW("get_thumbnaillist->tryluckMutex fail");
        return -1;
    }
    // Scaling happens in coded orientation; the turn afterwards gives the
    // requested size in display orientation.
    const int rotation = getRotation();
    int width = outWidth;
    int height = outHeight;
    if (isQuarterTurn(rotation)) {
        std::swap(width, height);
    }
    const int bytes = rgbaBytes(width, height);
    if (bytes <= 0 || dst == nullptr || dstBytes < bytes) {
        LOGE("get_thumbnaillist->dstArray size %d is smaller than %d", dstBytes, bytes);
        operationMutex.unlock();
        return -1;
    }
    setReaderState(1);
    kavra::ScopedAVFrame rgba = kavra::makeScopedAVFrame();
    kavra::ScopedAVMem<uint8_t> buffer(static_cast<uint8_t*>(av_malloc(static_cast<size_t>(bytes))));
    if (!rgba || !buffer) {
        LOGE("get_thumbnaillist->pFrameRGBA alloc error");
        setReaderState(0);
        operationMutex.unlock();
        return -1;
    }
    av_image_fill_arrays(rgba->data, rgba->linesize, buffer.get(), AV_PIX_FMT_RGBA, width, height, 1);
    startReader();

    kavra::ScopedSwsContext scaler;
    const int targets = count;
    const int flags = scaleFlags;
    for (int i = 0; i < targets; ++i) {
        if (cancelled) {
            break;
        }
        AVFrame* frame = getPacketFrame(i);
        if (frame == nullptr || frame->data[0] == nullptr) {
            break;
        }
        // Cached: the scaler is only remade if the picture geometry changes.
        scaler.reset(sws_getCachedContext(scaler.release(), frame->width, frame->height,
                                          static_cast<AVPixelFormat>(frame->format), width, height, AV_PIX_FMT_RGBA,
                                          flags, nullptr, nullptr, nullptr));
        if (!scaler) {
            break;
        }
        sws_scale(scaler.get(), frame->data, frame->linesize, 0, frame->height, rgba->data, rgba->linesize);
        placeRgba(reinterpret_cast<const int*>(buffer.get()), dst, width, height, rotation, dstBytes);
        if (!cancelled && !sink.onThumbnail(i, frameTimeMs(frame))) {
            break;
        }
    }
    // Nothing reads the file once the call has returned.
    stopReader();
    operationMutex.unlock();
    return 0;
}

// ---------------------------------------------------------------------------
// Key frame grab

int VideoItem::getKeyFrameAt(int* dst, int dstBytes, int width, int height, int timeMs) {
    int t = timeMs;
    if (t < 0 || t > getDuration()) {
        t = 0;
    }
    const int rotation = getRotation();
    const int scaleWidth = isQuarterTurn(rotation) ? height : width;
    const int scaleHeight = isQuarterTurn(rotation) ? width : height;
    if (scaleWidth < 1 || scaleHeight < 1 || rgbaBytes(scaleWidth, scaleHeight) != dstBytes || dst == nullptr) {
        LOGE("avpicture_get_size is bigger than dstArray size.");
        return -1;
    }
    NativeMutexLock grab(mKeyFrameLock);
    KavraMedia* media = keyFrameMedia();
    kavra::ScopedAVPacket scopedPacket = kavra::makeScopedAVPacket();
    AVPacket* packet = scopedPacket.get();
    if (media == nullptr || packet == nullptr) {
        return -1;
    }
    media->flushVideoDecoder();
    int ret = media->seekFrame(t, -1, AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_FRAME);
    if (ret < 0) {
        ret = media->seekFrame(0, -1, AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_FRAME);
        if (ret >= 0) {
            return ret;
        }
        LOGE("seekFrame error:%d", ret);
        return ret;
    }
    ret = findKeyPacket(media, t, packet);
    if (ret < 0) {
        return ret;
    }
    int got = 0;
    media->decodeVideo(&got, packet);
    av_packet_unref(packet);
    for (int calls = 0; !got; ++calls) {
        if (calls == kDrainBudget) {
            LOGE("decoder time out.");
            return -1;
        }
        if (media->decodeVideo(&got, packet) < 0) {
            LOGE("decoder fail.");
            return -1;
        }
    }
    ret = YUV420PToRGBA(media->getVideoFrame(), dst, scaleWidth, scaleHeight, rotation);
    media->flushVideoDecoder();
    return ret;
}

int VideoItem::findKeyPacket(KavraMedia* media, int timeMs, AVPacket* packet) {
    // Seeking lands on the key frame at or before the time by decode time
    // (MP4) or on any packet near it (MPEG-TS), so the first key packet read
    // can be presented after the time. The grab then seeks further back,
    // doubling the distance, as the strip's reader does, and takes the
    // latest key packet presented at or before the time; after a step one
    // second before the first frame, the first key packet read serves.
    const AVStream* stream = media->videoStream();
    const AVRational timeBase = stream != nullptr ? stream->time_base : AVRational{1, 1000};
    const AVRational ms = {1, 1000};
    const int64_t firstMs =
        stream != nullptr && stream->start_time != AV_NOPTS_VALUE ? av_rescale_q(stream->start_time, timeBase, ms) : 0;
    // Exact comparisons of stream ticks with the time: a key frame a
    // fraction of a millisecond after it is after it.
    auto after = [&](int64_t ticks) {
        return ticks != AV_NOPTS_VALUE && av_compare_ts(ticks, timeBase, timeMs, ms) > 0;
    };
    kavra::ScopedAVPacket best = kavra::makeScopedAVPacket();
    if (!best) {
        return -1;
    }
    int64_t stepBackMs = 0;
    for (;;) {
        bool haveBest = false;
        for (int passed = 0;;) {
            int ret = media->readFrame(packet);
            if (ret < 0) {
                av_packet_unref(packet);
                if (haveBest) {
                    break;  // the last key packet read serves
                }
                LOGE("readFrame error:%d", ret);
                return ret;
            }
            const bool video = packet->stream_index == media->getVideoStreamIndex();
            if (video && packet->flags == AV_PKT_FLAG_KEY) {
                if (!after(packet->pts != AV_NOPTS_VALUE ? packet->pts : packet->dts)) {
                    av_packet_unref(best.get());
                    av_packet_move_ref(best.get(), packet);
                    haveBest = true;
                    continue;
                }
                if (haveBest) {
                    av_packet_unref(packet);
                    break;
                }
                const int64_t soughtMs = static_cast<int64_t>(timeMs) - stepBackMs;
                if (soughtMs < firstMs - kFirstStepBackMs || stepBackMs >= kMaxStepBackMs) {
                    return 0;  // nothing earlier: the key packet in hand serves
                }
                av_packet_unref(packet);
                stepBackMs = stepBackMs == 0 ? kFirstStepBackMs : stepBackMs * 2;
                media->seekFrame(static_cast<int>(std::max<int64_t>(timeMs - stepBackMs, INT32_MIN)), -1,
                                 AVSEEK_FLAG_BACKWARD | AVSEEK_FLAG_FRAME);
                break;
            }
            // Once a video packet is decoded after the time, no later key
            // packet can be presented at or before it.
            const bool pastTime = video && haveBest && after(packet->dts);
            av_packet_unref(packet);
            if (pastTime) {
                break;
            }
            if (!haveBest && ++passed >= kKeyPacketBudget) {
                LOGE("Mutex time out.");
                media->flushVideoDecoder();
                return -1;
            }
        }
        if (haveBest) {
            av_packet_move_ref(packet, best.get());
            return 0;
        }
    }
}

KavraMedia* VideoItem::keyFrameMedia() {
    if (mKeyFrameMedia) {
        return mKeyFrameMedia.get();
    }
    // Opening anything but a regular file a second time could block (a
    // pipe without a writer) or read other bytes than the first open did.
    struct stat st;
    if (mPath.empty() || stat(mPath.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
        LOGE("getKeyFrameAt->cannot open %s again", mPath.c_str());
        return nullptr;
    }
    std::unique_ptr<KavraMedia> media(new KavraMedia());
    if (media->setSource(mPath.c_str()) < 0 || media->openVideoDecoder(mSingleThread) < 0 || media->prepare() < 0) {
        return nullptr;
    }
    mKeyFrameMedia = std::move(media);
    return mKeyFrameMedia.get();
}

// ---------------------------------------------------------------------------
// Snapshot

int VideoItem::snapShot(const char* path, long timeMs) {
    const int t = static_cast<int>(timeMs);
    const int width = codedWidth();
    const int height = codedHeight();
    kavra::ScopedAVFrame yuv = kavra::makeScopedAVFrame();
    if (!yuv) {
        LOGE("snapShot->pFrameYUV alloc error");
        return -1;
    }
    // The whole snapshot holds the item, as a strip does: a release from
    // another thread waits for it, and a strip cannot start a second reader
    // beside this one. An item already held (a strip or a release under
    // way) is left alone.
    if (!operationMutex.tryLock()) {
        LOGW("setItemParameters->tryluckMutex fail");
        return -1;
    }
    struct Unlock {
        NativeMutex& mutex;
        ~Unlock() { mutex.unlock(); }
    } unlockAtEnd{operationMutex};
    startTime = t;
    endTime = t;
    count = 1;
    interval = 0;
    outWidth = width;
    outHeight = height;
    keyFrameOnly = false;

    startReader();
    const int size = av_image_get_buffer_size(AV_PIX_FMT_YUVJ420P, width, height, 1);
    kavra::ScopedAVMem<uint8_t> buffer(size > 0 ? static_cast<uint8_t*>(av_malloc(static_cast<size_t>(size))) : nullptr);
    AVFrame* frame = getPacketFrame(0);
    int state;
    {
        NativeMutexLock lock(mReaderStateLock);
        state = readerState;
    }
    cancelled = true;
    if (state == 1) {
        waitWhileReaderState(1);
    }
    stopReader();
    if (frame == nullptr || frame->data[0] == nullptr || !buffer) {
        LOGE("snapShot->getPacketFrame error");
        return -1;
    }
    av_image_fill_arrays(yuv->data, yuv->linesize, buffer.get(), AV_PIX_FMT_YUVJ420P, width, height, 1);
    yuv->format = AV_PIX_FMT_YUVJ420P;
    yuv->width = width;
    yuv->height = height;
    kavra::ScopedSwsContext scaler(sws_getCachedContext(nullptr, frame->width, frame->height,
                                                        static_cast<AVPixelFormat>(frame->format), width, height,
                                                        AV_PIX_FMT_YUVJ420P, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!scaler) {
        LOGE("snapShot->getPacketFrame error");
        return -1;
    }
    // Full size in coded orientation: the snapshot is not turned.
    sws_scale(scaler.get(), frame->data, frame->linesize, 0, frame->height, yuv->data, yuv->linesize);
    writeJpeg(path, yuv.get());
    return 0;
}

void VideoItem::writeJpeg(const char* path, AVFrame* picture) {
    if (path == nullptr) {
        return;
    }
    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) {
        return;
    }
    raw->oformat = av_guess_format("mjpeg", nullptr, nullptr);
    kavra::ScopedAVOutputContext output(raw);
    if (output->oformat == nullptr || avio_open(&output->pb, path, AVIO_FLAG_READ_WRITE) < 0) {
        return;
    }
    AVStream* stream = avformat_new_stream(output.get(), nullptr);
    const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (stream == nullptr || encoder == nullptr) {
        return;
    }
    stream->id = 0;
    kavra::ScopedAVCodecContext context(avcodec_alloc_context3(encoder));
    if (!context) {
        return;
    }
    // No bit rate or quality is set: the encoder's defaults apply.
    context->codec_id = AV_CODEC_ID_MJPEG;
    context->codec_type = AVMEDIA_TYPE_VIDEO;
    context->pix_fmt = AV_PIX_FMT_YUVJ420P;
    context->width = picture->width;
    context->height = picture->height;
    context->time_base = AVRational{1, 25};
    if (avcodec_open2(context.get(), encoder, nullptr) < 0 ||
        avcodec_parameters_from_context(stream->codecpar, context.get()) < 0) {
        return;
    }
    stream->time_base = context->time_base;
    if (avformat_write_header(output.get(), nullptr) < 0) {
        return;
    }
    kavra::ScopedAVPacket packet = kavra::makeScopedAVPacket();
    if (!packet) {
        return;
    }
    picture->pts = 0;
    int ret = avcodec_send_frame(context.get(), picture);
    if (ret >= 0) {
        ret = avcodec_send_frame(context.get(), nullptr);  // one picture: drain at once
    }
    if (ret < 0) {
        return;
    }
    if (avcodec_receive_packet(context.get(), packet.get()) == 0) {
        packet->stream_index = stream->index;
        av_packet_rescale_ts(packet.get(), context->time_base, stream->time_base);
        if (av_write_frame(output.get(), packet.get()) < 0) {
            return;
        }
    }
    av_write_trailer(output.get());
}

// ---------------------------------------------------------------------------
// Pixels

int VideoItem::YUV420PToRGBA(AVFrame* frame, int* dst, int width, int height, int rotation) {
    kavra::ScopedAVFrame rgba = kavra::makeScopedAVFrame();
    if (!rgba) {
        LOGE("alloc frame error");
        return -1;
    }
    const int size = rgbaBytes(width, height);
    if (frame == nullptr || frame->data[0] == nullptr || dst == nullptr || size <= 0) {
        return -1;
    }
    kavra::ScopedAVMem<uint8_t> buffer(static_cast<uint8_t*>(av_malloc(static_cast<size_t>(size))));
    if (!buffer) {
        return -1;
    }
    av_image_fill_arrays(rgba->data, rgba->linesize, buffer.get(), AV_PIX_FMT_RGBA, width, height, 1);
    // The frame's own geometry: it is the decoder's, and stays right even
    // if a stream changes size midway.
    kavra::ScopedSwsContext scaler(sws_getContext(frame->width, frame->height,
                                                  static_cast<AVPixelFormat>(frame->format), width, height,
                                                  AV_PIX_FMT_RGBA, SWS_BICUBIC, nullptr, nullptr, nullptr));
    if (!scaler) {
        return -1;
    }
    sws_scale(scaler.get(), frame->data, frame->linesize, 0, frame->height, rgba->data, rgba->linesize);
    placeRgba(reinterpret_cast<const int*>(buffer.get()), dst, width, height, rotation, size);
    return 0;
}

void VideoItem::placeRgba(const int* src, int* dst, int width, int height, int rotation, int dstBytes) {
    switch (rotation) {
    case 270: vemiRotate270(src, dst, width, height); break;
    case 180: vemiRotate180(src, dst, width, height); break;
    case 90: vemiRotate90(src, dst, width, height); break;
    default: memcpy(dst, src, static_cast<size_t>(std::min(dstBytes, rgbaBytes(width, height)))); break;
    }
}

// The turns write the destination row by row, left to right, so that the
// writes are sequential; the source is read in columns.

void VideoItem::vemiRotate90(const int* src, int* dst, int width, int height) {
    if (width < 1 || height < 1) {
        return;
    }
    // dst is height wide: dst[x][y] = src[height - 1 - y][x].
    for (int x = 0; x < width; ++x) {
        int* row = dst + static_cast<size_t>(x) * height;
        for (int y = 0; y < height; ++y) {
            row[y] = src[static_cast<size_t>(height - 1 - y) * width + x];
        }
    }
}

void VideoItem::vemiRotate180(const int* src, int* dst, int width, int height) {
    if (width < 1 || height < 1) {
        return;
    }
    const size_t total = static_cast<size_t>(width) * height;
    for (size_t i = 0; i < total; ++i) {
        dst[i] = src[total - 1 - i];
    }
}

void VideoItem::vemiRotate270(const int* src, int* dst, int width, int height) {
    if (width < 1 || height < 1) {
        return;
    }
    // dst is height wide: dst[x][y] = src[y][width - 1 - x].
    for (int x = 0; x < width; ++x) {
        int* row = dst + static_cast<size_t>(x) * height;
        for (int y = 0; y < height; ++y) {
            row[y] = src[static_cast<size_t>(y) * width + (width - 1 - x)];
        }
    }
}
