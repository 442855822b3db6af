#include "Render/RenderManager.h"

#include <chrono>
#include <cstdint>
#include <utility>

RenderManager::RenderManager() : RenderManager(Timer::TimeSource()) {}

RenderManager::RenderManager(Timer::TimeSource timeSource)
    : mTimer(std::move(timeSource)), mStartTime(0), mSyncOpened(false), mVideoEnabled(false), mAudioEnabled(false),
      mPaceInterrupted{false, false} {}

RenderManager::~RenderManager() {
    mVideoRender.reset();
    mAudioRender.reset();
}

void RenderManager::setVideoPlay(const std::shared_ptr<NativeWindow>& window, int rotation) {
    if (mVideoRender) {
        mVideoRender->flush();
        mVideoRender.reset();
    }
    mVideoRender.reset(new VideoRender());
    mVideoRender->setVideoPlayer(window, rotation);
    mVideoEnabled = true;
}

int RenderManager::setAudioPlay(JNIEnv* env, jobject callback) {
    if (mAudioRender) {
        mAudioRender->flush();
        mAudioRender.reset();
    }
    mAudioRender.reset(new AudioRender());
    int result = mAudioRender->setAudioPlay(env, callback);
    mAudioEnabled = true;
    return result;
}

int RenderManager::setAudioPlay(std::unique_ptr<PcmSink> sink) {
    if (mAudioRender) {
        mAudioRender->flush();
        mAudioRender.reset();
    }
    mAudioRender.reset(new AudioRender());
    int result = mAudioRender->setPcmSink(std::move(sink));
    mAudioEnabled = true;
    return result;
}

void RenderManager::openSyncRender() {
    {
        // Paced playback starts afresh: what closed it before is over.
        std::lock_guard<std::mutex> lock(mPaceLock);
        mPaceInterrupted[kStreamAudio] = false;
        mPaceInterrupted[kStreamVideo] = false;
    }
    if (!mSyncOpened) {
        mTimer.start();
        mSyncOpened = true;
    }
}

void RenderManager::closeSyncRender() {
    if (!mSyncOpened) {
        return;
    }
    mTimer.pause();
    mSyncOpened = false;
    interruptPacing(kStreamBoth);
    if (mAudioRender) {
        mAudioRender->flush();
    }
    if (mVideoRender) {
        mVideoRender->flush();
    }
}

void RenderManager::openStreamRender(int stream) {
    if (stream == kStreamVideo) {
        mVideoEnabled = true;
    } else if (stream == kStreamAudio) {
        mAudioEnabled = true;
    } else if (stream == kStreamBoth) {
        mVideoEnabled = true;
        mAudioEnabled = true;
    }
}

void RenderManager::closeStreams(int stream) {
    interruptPacing(stream);
    if (stream == kStreamVideo) {
        mVideoEnabled = false;
        if (mVideoRender) {
            mVideoRender->flush();
        }
    } else if (stream == kStreamAudio) {
        mAudioEnabled = false;
        if (mAudioRender) {
            mAudioRender->flush();
        }
    } else if (stream == kStreamBoth) {
        mVideoEnabled = false;
        mAudioEnabled = false;
        if (mAudioRender) {
            mAudioRender->flush();
        }
        if (mVideoRender) {
            mVideoRender->flush();
        }
    }
}

void RenderManager::closeStreamRender(int stream) { closeStreams(stream); }

void RenderManager::flush(int stream) { closeStreams(stream); }

int RenderManager::frameDelay(int frameTime) {
    // Far-apart 32-bit times (a frame without a real time, a jump in the
    // stream) must neither wrap around nor make a render thread wait for
    // weeks: the difference is taken in 64 bits and clamped.
    int64_t delay = static_cast<int64_t>(frameTime) - static_cast<int64_t>(mTimer.getCurrentTime()) -
                    static_cast<int64_t>(mStartTime.load());
    return delay > kMaxDelayMs ? kMaxDelayMs : static_cast<int>(delay < 0 ? 0 : delay);
}

int RenderManager::calculateRenderFrameDelay(int frameTime) { return frameDelay(frameTime); }

void RenderManager::renderFrame(FrameBuffer* frame, int stream) {
    if (frame == nullptr) {
        return;
    }
    const int frameTime = frame->ptsMs;
    if (!mSyncOpened) {
        // Free rendering: the frame is shown at once and sets the clock.
        if (stream == kStreamVideo) {
            if (!mVideoRender || !mVideoEnabled) {
                return;
            }
            mTimer.setTime(frameTime);
            mVideoRender->renderFrame(frame, 0);
        } else if (stream == kStreamAudio) {
            if (!mAudioRender || !mAudioEnabled) {
                return;
            }
            mTimer.setTime(frameTime);
            mAudioRender->renderFrame(frame, 0);
        }
        return;
    }
    if (stream == kStreamAudio) {
        if (!mAudioRender) {
            return;
        }
        if (mAudioEnabled) {
            // Audio is paced by its consumer, never here.
            mAudioRender->renderFrame(frame, 0);
            return;
        }
        // Muted audio still takes its time.
        int delay = frameDelay(frameTime);
        if (delay < 1) {
            return;
        }
        paceWait(kStreamAudio, delay);
    } else if (stream == kStreamVideo) {
        int delay = frameDelay(frameTime);
        if (!mVideoRender) {
            return;
        }
        if (!mVideoEnabled) {
            paceWait(kStreamVideo, delay);
            return;
        }
        mVideoRender->renderFrame(frame, delay);
    }
}

void RenderManager::paceWait(int stream, int ms) {
    std::unique_lock<std::mutex> lock(mPaceLock);
    bool& interrupted = mPaceInterrupted[stream];
    if (ms >= 1) {
        mPaceCond.wait_for(lock, std::chrono::milliseconds(ms), [&] { return interrupted; });
    }
    interrupted = false;
}

void RenderManager::interruptPacing(int stream) {
    if (stream != kStreamVideo && stream != kStreamAudio && stream != kStreamBoth) {
        return;
    }
    {
        std::lock_guard<std::mutex> lock(mPaceLock);
        if (stream != kStreamAudio) {
            mPaceInterrupted[kStreamVideo] = true;
        }
        if (stream != kStreamVideo) {
            mPaceInterrupted[kStreamAudio] = true;
        }
    }
    mPaceCond.notify_all();
}

void RenderManager::setSyncTimerSpeed(float speed) { mTimer.setTimerSpeed(speed); }

void RenderManager::setCurrentTime(int ms) {
    mTimer.setTime(static_cast<int>(static_cast<uint32_t>(ms) - static_cast<uint32_t>(mStartTime.load())));
}

int RenderManager::getCurrentTime() { return mTimer.getCurrentTime(); }
