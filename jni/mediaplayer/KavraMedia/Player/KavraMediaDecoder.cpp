#include "Player/KavraMediaDecoder.h"

#include <android/log.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "Decoder/FFmpegDecoder.h"
#include "Decoder/MediaCodecVideoDecoder.h"

namespace {
const char* const kTag = "KavraMediaDecoder";
// The longest the demux thread blocks at a time on a full decoder queue,
// and the pause after a read that gave nothing.
constexpr int kPutTimeoutMs = 5;
// The longest a seek request waits at a time for the demux thread.
constexpr int kSeekWaitMs = 500;
constexpr int kSeekWaitLimitMs = 10000;
}  // namespace

KavraMediaDecoder::KavraMediaDecoder()
    : mVideoStreamIndex(-1),
      mAudioStreamIndex(-1),
      mThreadStarted(false),
      mStarted(false),
      mStopRequest(false),
      mMuxEnd(false),
      mSeekTime(-1),
      mSeekSerial(0),
      mSeekCount(0),
      mSeekSteps(0),
      mInterrupted(false) {}

KavraMediaDecoder::~KavraMediaDecoder() { release(); }

int KavraMediaDecoder::setDataSource(const char* path) {
    mExtractor.reset(new FFmpegMediaExtractor());
    return mExtractor->setSource(path);
}

int KavraMediaDecoder::prepare() {
    if (!mExtractor) {
        return -1;
    }
    int result = mExtractor->findStreamInfo();
    mVideoStreamIndex = mExtractor->mMediaInfo.bestVideoStreamIndex;
    mAudioStreamIndex = mExtractor->mMediaInfo.bestAudioStreamIndex;
    return result;
}

std::unique_ptr<Decoder> KavraMediaDecoder::newVideoDecoder(const char* codecName) {
    if (codecName != nullptr && strcmp(codecName, "h264") == 0) {
        return std::unique_ptr<Decoder>(new MediaCodecVideoDecoder());
    }
    return std::unique_ptr<Decoder>(new FFmpegDecoder());
}

std::unique_ptr<Decoder> KavraMediaDecoder::newAudioDecoder() { return std::unique_ptr<Decoder>(new FFmpegDecoder()); }

void KavraMediaDecoder::freeDecoder(std::unique_ptr<Decoder>& decoder) {
    if (!decoder) {
        return;
    }
    if (mStarted) {
        decoder->stop();
    }
    decoder->release();
    decoder.reset();
}

int KavraMediaDecoder::selectVideoStream(int /*index*/) {
    if (!mExtractor) {
        return -1;
    }
    int index = mVideoStreamIndex;
    const MediaInfo& info = mExtractor->mMediaInfo;
    const char* codecName = nullptr;
    if (index >= 0 && index < info.streamNum && info.streamInfos != nullptr) {
        codecName = info.streamInfos[index].coderName;
    }
    NativeMutexLock lock(mDecoderLock);
    freeDecoder(mVideoDecoder);
    mDecodeFloor.configure(mExtractor->getStream(index));
    mVideoDecoder = newVideoDecoder(codecName);
    int result = mVideoDecoder->create(mExtractor->getStream(index));
    if (result >= 0 && mStarted) {
        mVideoDecoder->start();
    }
    return result;
}

int KavraMediaDecoder::selectAudioStream(int /*index*/) {
    if (!mExtractor) {
        return -1;
    }
    NativeMutexLock lock(mDecoderLock);
    // The old decoder (and its thread) is gone before the new one exists.
    freeDecoder(mAudioDecoder);
    mAudioDecoder = newAudioDecoder();
    int result = mAudioDecoder->create(mExtractor->getStream(mAudioStreamIndex));
    if (result >= 0 && mStarted) {
        mAudioDecoder->start();
    }
    return result;
}

int KavraMediaDecoder::selectAudioTrack(int track) {
    if (!mExtractor) {
        return -1;
    }
    NativeMutexLock lock(mDecoderLock);
    if (!mAudioDecoder) {
        return -1;
    }
    mExtractor->getStreamIndex(AVMEDIA_TYPE_AUDIO, track);
    mAudioStreamIndex = mExtractor->mMediaInfo.bestAudioStreamIndex;
    // Its thread must not decode while the codec is closed and reopened.
    if (mStarted) {
        mAudioDecoder->stop();
    }
    mAudioDecoder->release();
    int result = mAudioDecoder->create(mExtractor->getStream(mAudioStreamIndex));
    if (result >= 0 && mStarted && !mStopRequest) {
        mAudioDecoder->start();
    }
    return result;
}

int KavraMediaDecoder::start() {
    if (mThreadStarted || mStopRequest) {
        return 0;
    }
    {
        NativeMutexLock lock(mDecoderLock);
        if (mVideoDecoder) {
            mVideoDecoder->start();
        }
        if (mAudioDecoder) {
            mAudioDecoder->start();
        }
        mStarted = true;
    }
    mMuxThread = std::thread(&KavraMediaDecoder::onMuxPacket, this);
    mThreadStarted = true;
    return 0;
}

void KavraMediaDecoder::interruptExtractor() {
    mInterrupted = true;
    if (mExtractor) {
        mExtractor->requestInterrupt();
    }
}

void KavraMediaDecoder::seekTo(int ms) {
    if (ms == -1) {
        return;
    }
    NativeMutexLock lock(mLock);
    const uint32_t serial = ++mSeekSerial;
    mSeekTime = ms;
    // Wakes a parked demux thread. Every waiter re-checks its own condition,
    // so waking all cannot lose a hand-over between several callers.
    mCond.notifyAll();
    // mLock is free while the demux thread flushes and repositions, so each
    // wait ends within its 500 ms whatever the decoders do. A wait that runs
    // out while the seek still progresses (a slow machine, a container
    // whose seek reads much of the file) is followed by another, up to
    // kSeekWaitLimitMs in all; one that saw no progress gives up.
    auto progress = [this] { return mSeekSteps.load() + (mExtractor ? mExtractor->ioProgress() : 0); };
    uint64_t seen = progress();
    int waitedMs = 0;
    while (mSeekTime != -1 && mSeekSerial == serial && !mStopRequest) {
        bool woken = mCond.wait(mLock, kSeekWaitMs);
        waitedMs += woken ? 0 : kSeekWaitMs;
        const uint64_t now = progress();
        const bool progressed = now != seen && waitedMs < kSeekWaitLimitMs;
        seen = now;
        // The seek may have been carried out, or replaced by a later
        // request, while this wait took the lock back; only this request,
        // still pending, has timed out.
        if (!woken && !progressed && mSeekTime != -1 && mSeekSerial == serial && !mStopRequest) {
            __android_log_print(ANDROID_LOG_WARN, kTag, "seek time out.");
            mSeekTime = -1;
            interruptExtractor();
        }
    }
}

int KavraMediaDecoder::stop() {
    mStopRequest = true;
    interruptExtractor();
    {
        NativeMutexLock lock(mLock);
        mCond.notifyAll();
    }
    // A demux thread inside a seek's flush waits for the decoding threads;
    // marking the decoders stopped ends that wait, so the join below does
    // not depend on a consumer giving its frame back. Only this (the
    // control) thread replaces the decoders, so their pointers are read
    // here without mDecoderLock, which that flush holds.
    for (Decoder* decoder : {mVideoDecoder.get(), mAudioDecoder.get()}) {
        if (decoder != nullptr) {
            decoder->updateStatus(DECODER_STATUS_STOPPED);
        }
    }
    if (mThreadStarted) {
        mThreadStarted = false;
        mMuxThread.join();
    }
    NativeMutexLock lock(mDecoderLock);
    if (mVideoDecoder) {
        mVideoDecoder->stop();
    }
    if (mAudioDecoder) {
        mAudioDecoder->stop();
    }
    return 0;
}

void KavraMediaDecoder::flush() {
    NativeMutexLock lock(mDecoderLock);
    if (mVideoDecoder) {
        mVideoDecoder->flush();
    }
    if (mAudioDecoder) {
        mAudioDecoder->flush();
    }
}

int KavraMediaDecoder::release() {
    // The demux thread uses everything freed below.
    if (mThreadStarted) {
        stop();
    }
    {
        NativeMutexLock lock(mDecoderLock);
        if (mVideoDecoder) {
            mVideoDecoder->release();
            mVideoDecoder.reset();
        }
        if (mAudioDecoder) {
            mAudioDecoder->release();
            mAudioDecoder.reset();
        }
    }
    if (mExtractor) {
        mExtractor->release();
        mExtractor.reset();
    }
    return 0;
}

Decoder* KavraMediaDecoder::getVideoDecoder() {
    NativeMutexLock lock(mDecoderLock);
    return mVideoDecoder.get();
}

Decoder* KavraMediaDecoder::getAudioDecoder() {
    NativeMutexLock lock(mDecoderLock);
    return mAudioDecoder.get();
}

FrameBufferQueue* KavraMediaDecoder::getVideoOutputQueue() {
    NativeMutexLock lock(mDecoderLock);
    return mVideoDecoder ? mVideoDecoder->getOutputQueue() : nullptr;
}

FrameBufferQueue* KavraMediaDecoder::getAudioOutputQueue() {
    NativeMutexLock lock(mDecoderLock);
    return mAudioDecoder ? mAudioDecoder->getOutputQueue() : nullptr;
}

bool KavraMediaDecoder::isInputDamaged() { return mExtractor && mExtractor->isDamaged(); }

MediaInfo KavraMediaDecoder::getMediaInfo() {
    if (!mExtractor) {
        return MediaInfo();
    }
    return mExtractor->mMediaInfo;
}

int KavraMediaDecoder::getStreamStartTime() {
    if (!mExtractor) {
        return 0;
    }
    const MediaInfo& info = mExtractor->mMediaInfo;
    auto startOf = [&](int index) {
        if (index < 0 || index >= info.streamNum || info.streamInfos == nullptr) {
            return 0;
        }
        return info.streamInfos[index].startTime;
    };
    return std::max(startOf(mVideoStreamIndex), startOf(mAudioStreamIndex));
}

bool KavraMediaDecoder::hasDecoder(bool video) {
    NativeMutexLock lock(mDecoderLock);
    return video ? mVideoDecoder != nullptr : mAudioDecoder != nullptr;
}

int KavraMediaDecoder::queueToDecoder(AVPacket* pkt, int streamIndex) {
    for (;;) {
        if (mStopRequest) {
            return -1;
        }
        if (mSeekTime != -1) {
            // The packet in hand belongs to the old position.
            performSeek();
            return -1;
        }
        if (streamIndex == mVideoStreamIndex && mDecodeFloor.skips(pkt)) {
            return -1;
        }
        int result = 0;
        {
            NativeMutexLock lock(mDecoderLock);
            Decoder* decoder = nullptr;
            if (streamIndex == mVideoStreamIndex && mVideoDecoder) {
                decoder = mVideoDecoder.get();
            } else if (streamIndex == mAudioStreamIndex && mAudioDecoder) {
                decoder = mAudioDecoder.get();
            } else {
                // A stream that is not played, such as subtitles.
                return -1;
            }
            result = decoder->queueInputBuffer(pkt, kPutTimeoutMs);
        }
        if (result == 0) {
            return 0;
        }
        if (result != -2) {
            return -1;
        }
        // Full for 5 ms: look at stop and seek again, then retry.
    }
}

void KavraMediaDecoder::performSeek() {
    int target;
    uint32_t serial;
    {
        NativeMutexLock lock(mLock);
        target = mSeekTime;
        serial = mSeekSerial;
        if (target == -1) {
            // The requester gave up meanwhile.
            return;
        }
    }
    __android_log_print(ANDROID_LOG_ERROR, kTag, "seekStart");
    {
        // A flush waits for each decoding thread to empty its queues, which
        // lasts as long as a consumer holds a dequeued frame. It ends when
        // the frame is given back or the decoder is stopped.
        NativeMutexLock decoders(mDecoderLock);
        if (mVideoDecoder) {
            mVideoDecoder->flush();
            mSeekSteps += 1;
        }
        if (mAudioDecoder) {
            mAudioDecoder->flush();
            mSeekSteps += 1;
        }
    }
    mExtractor->seekFrame(target, -1, AVSEEK_FLAG_BACKWARD);
    {
        NativeMutexLock lock(mLock);
        // A request that came in meanwhile stays pending and is carried out
        // next; one that timed out has already been cleared.
        if (mSeekSerial == serial) {
            mSeekTime = -1;
        }
        mSeekCount += 1;
        // Logged before the requester is released, as the seek's last step.
        __android_log_print(ANDROID_LOG_ERROR, kTag, "seekEnd");
        mCond.notifyAll();
    }
}

void KavraMediaDecoder::park() {
    NativeMutexLock lock(mLock);
    while (mSeekTime == -1 && !mStopRequest) {
        mCond.wait(mLock);
    }
    mMuxEnd = false;
}

bool KavraMediaDecoder::isMuxPacket() {
    if (mMuxEnd) {
        park();
    }
    return !mStopRequest;
}

void KavraMediaDecoder::backOff() {
    {
        NativeMutexLock lock(mLock);
        if (mSeekTime == -1 && !mStopRequest) {
            mCond.wait(mLock, kPutTimeoutMs);
        }
    }
    if (mSeekTime != -1 && !mStopRequest) {
        performSeek();
    }
}

bool KavraMediaDecoder::queueEndOfStream() {
    uint32_t seeks = mSeekCount;
    // A hand-over cut short by a seek or stop goes back to reading; one that
    // the decoder itself refused (its queue was closed) cannot be repeated
    // usefully, so it counts as done rather than being retried forever.
    auto interrupted = [&] { return mStopRequest || mSeekCount != seeks || mSeekTime != -1; };
    if (hasDecoder(false) && queueToDecoder(nullptr, mAudioStreamIndex) < 0 && interrupted()) {
        return false;
    }
    if (hasDecoder(true) && queueToDecoder(nullptr, mVideoStreamIndex) < 0 && interrupted()) {
        return false;
    }
    return true;
}

void KavraMediaDecoder::onMuxPacket() {
    __android_log_print(ANDROID_LOG_ERROR, kTag, "onMuxPacket thread begin");
    kavra::ScopedAVPacket packet = kavra::makeScopedAVPacket();
    while (packet) {
        if (mMuxEnd) {
            park();
        }
        if (mStopRequest) {
            break;
        }
        int result = mExtractor->readFrame(packet.get());
        // The extractor reports a transient read error as a packet with
        // nothing in it.
        bool empty = result >= 0 && packet->data == nullptr && packet->size == 0 && packet->side_data_elems == 0;
        if (result < 0 || (empty && mInterrupted)) {
            av_packet_unref(packet.get());
            if (queueEndOfStream()) {
                __android_log_print(ANDROID_LOG_WARN, kTag, "Mux end.");
                mMuxEnd = true;
            }
            continue;
        }
        if (empty) {
            av_packet_unref(packet.get());
            backOff();
            continue;
        }
        if (queueToDecoder(packet.get(), packet->stream_index) < 0) {
            av_packet_unref(packet.get());
        }
    }
    __android_log_print(ANDROID_LOG_ERROR, kTag, "onMuxPacket thread finish.");
}
