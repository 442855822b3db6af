#include "Render/RenderManager.h"

#include <cerrno>
#include <cstdint>
#include <ctime>
#include <utility>

RenderManager::RenderManager() : RenderManager(Timer::TimeSource()) {}

RenderManager::RenderManager(Timer::TimeSource timeSource)
    : mTimer(std::move(timeSource)), mStartTime(0), mSyncOpened(false), mVideoEnabled(false), mAudioEnabled(false) {}

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

int RenderManager::rawDelay(int frameTime) {
    // 32-bit wrap-around as the times are 32-bit; computed unsigned so that
    // extreme times cannot overflow a signed operation.
    uint32_t delay = static_cast<uint32_t>(frameTime) - static_cast<uint32_t>(mTimer.getCurrentTime()) -
                     static_cast<uint32_t>(mStartTime.load());
    return static_cast<int>(delay);
}

int RenderManager::calculateRenderFrameDelay(int frameTime) {
    int delay = rawDelay(frameTime);
    return delay > 0 ? delay : 0;
}

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
            // A picture shown outside paced playback (a seek's, or while
            // paused) is never dropped.
            mVideoRender->showFrame(frame);
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
        int delay = rawDelay(frameTime);
        if (delay < 1) {
            return;
        }
        sleepMs(delay);
    } else if (stream == kStreamVideo) {
        int delay = rawDelay(frameTime);
        if (delay <= 0) {
            delay = 0;
        }
        if (!mVideoRender) {
            return;
        }
        if (!mVideoEnabled) {
            sleepMs(delay);
            return;
        }
        mVideoRender->renderFrame(frame, delay);
    }
}

void RenderManager::sleepMs(int ms) {
    if (ms < 1) {
        return;
    }
    struct timespec remaining;
    remaining.tv_sec = ms / 1000;
    remaining.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    while (nanosleep(&remaining, &remaining) != 0 && errno == EINTR) {
    }
}

void RenderManager::setSyncTimerSpeed(float speed) { mTimer.setTimerSpeed(speed); }

void RenderManager::setCurrentTime(int ms) {
    mTimer.setTime(static_cast<int>(static_cast<uint32_t>(ms) - static_cast<uint32_t>(mStartTime.load())));
}

int RenderManager::getCurrentTime() { return mTimer.getCurrentTime(); }
