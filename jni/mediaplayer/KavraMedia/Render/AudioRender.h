#pragma once

#include <jni.h>

#include <memory>

#include "Common/FrameBuffer.h"
#include "Common/NativeCondition.h"
#include "Common/NativeMutex.h"
#include "Decoder/FFmpegAudioConverter.h"
#include "Platform/PcmSink.h"

// Delivers decoded audio frames as signed 16-bit interleaved PCM to a sink:
// the Java callback's onAudioBuffer(byte[]) in the product (setAudioPlay),
// or any other PcmSink. Called on the player's audio render thread.
class AudioRender {
public:
    AudioRender();
    ~AudioRender();
    AudioRender(const AudioRender&) = delete;
    AudioRender& operator=(const AudioRender&) = delete;

    // Replaces the sink by one that calls `callback`'s "onAudioBuffer"
    // "([B)V". The previous callback's reference is released first.
    int setAudioPlay(JNIEnv* env, jobject callback);
    // Replaces the sink; null leaves the renderer without one.
    int setPcmSink(std::unique_ptr<PcmSink> sink);
    // Waits up to delayMs (cut short by flush()), converts the frame and
    // hands it to the sink. Without a sink the frame is dropped.
    int renderFrame(FrameBuffer* frame, int delayMs);
    // Cuts short the wait in renderFrame; discards nothing. A flush that
    // finds no wait in progress ends the wait of the next frame handed in,
    // so that one issued just before the wait begins is not lost.
    void flush();

private:
    NativeMutex mLock;
    NativeCondition mCondition;
    // Guarded by mLock.
    std::unique_ptr<PcmSink> mSink;
    FFmpegAudioConverter mConverter;
    // Flushes renderFrame has not seen yet; under mLock. Each frame takes
    // them all: a frame that has some does not wait.
    int mPendingCount;
};
