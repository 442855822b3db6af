#include "Render/AudioRender.h"

#include <cstdint>
#include <utility>

extern "C" {
#include <libavutil/frame.h>
#include <libavutil/samplefmt.h>
#include <libavutil/time.h>
}

#include "Render/JniPcmSink.h"

AudioRender::AudioRender() : mPendingCount(0) {}

AudioRender::~AudioRender() = default;

int AudioRender::setAudioPlay(JNIEnv* env, jobject callback) {
    NativeMutexLock lock(mLock);
    // The old callback's global reference goes before the new one is taken.
    mSink.reset();
    mSink.reset(new JniPcmSink(env, callback));
    return 0;
}

int AudioRender::setPcmSink(std::unique_ptr<PcmSink> sink) {
    NativeMutexLock lock(mLock);
    mSink.reset();
    mSink = std::move(sink);
    return 0;
}

int AudioRender::renderFrame(FrameBuffer* frame, int delayMs) {
    NativeMutexLock lock(mLock);
    if (delayMs >= 1 && mPendingCount == 0) {
        // Until the delay has passed or a flush came; the deadline is checked
        // again after every wake-up.
        const int64_t dueUs = av_gettime_relative() + static_cast<int64_t>(delayMs) * 1000;
        for (;;) {
            int64_t leftUs = dueUs - av_gettime_relative();
            if (leftUs <= 0) {
                break;
            }
            mCondition.wait(mLock, static_cast<long>((leftUs + 999) / 1000));
            if (mPendingCount > 0) {
                break;
            }
        }
    }
    mPendingCount = 0;
    if (!mSink || frame == nullptr || frame->data == nullptr || frame->size == 0) {
        return 0;
    }
    const AVFrame* decoded = static_cast<const AVFrame*>(frame->data);
    unsigned char* pcm = nullptr;
    int size = mConverter.convert(pcm, frame->sampleRate, frame->channels, AV_SAMPLE_FMT_S16,
                                  const_cast<const unsigned char**>(decoded->extended_data), frame->sampleRate,
                                  frame->channels, frame->format, frame->nbSamples);
    if (size < 0 || pcm == nullptr) {
        return 0;
    }
    mSink->deliver(pcm, size);
    return 0;
}

void AudioRender::flush() {
    NativeMutexLock lock(mLock);
    mPendingCount += 1;
    mCondition.notifyOne();
}
