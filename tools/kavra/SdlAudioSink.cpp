#ifdef KAVRA_HAVE_SDL2

#include "SdlAudioSink.h"

#include <SDL.h>

#include <chrono>
#include <thread>

namespace {
// Sound queued in the device before a write waits: enough to ride over a
// busy moment, short enough that a pause or a seek is heard promptly.
constexpr int kQueueMs = 80;
// A write never waits longer than this for room.
constexpr int kMaxWaitMs = 500;
}  // namespace

SdlAudioSink::SdlAudioSink()
    : mDevice(0),
      mSampleRate(0),
      mChannels(0),
      mSpeed(1.0),
      mOpenSpeed(1.0),
      mAudioInitialised(false),
      mStopped(false),
      mFallback(kQueueMs) {
    mAudioInitialised = SDL_InitSubSystem(SDL_INIT_AUDIO) == 0;
}

SdlAudioSink::~SdlAudioSink() {
    closeDevice();
    if (mAudioInitialised) {
        SDL_QuitSubSystem(SDL_INIT_AUDIO);
    }
}

void SdlAudioSink::closeDevice() {
    if (mDevice != 0) {
        SDL_CloseAudioDevice(mDevice);
        mDevice = 0;
    }
}

void SdlAudioSink::willDeliver(int ptsMs, int sampleRate, int channels) {
    mFallback.willDeliver(ptsMs, sampleRate, channels);
    const double speed = mSpeed.load();
    if (!mAudioInitialised || mStopped ||
        (sampleRate == mSampleRate && channels == mChannels && speed == mOpenSpeed)) {
        return;
    }
    closeDevice();
    mSampleRate = sampleRate;
    mChannels = channels;
    mOpenSpeed = speed;
    SDL_AudioSpec want;
    SDL_zero(want);
    want.freq = static_cast<int>(sampleRate * speed);
    want.format = AUDIO_S16SYS;
    want.channels = static_cast<Uint8>(channels);
    want.samples = 1024;
    want.callback = nullptr;  // written with SDL_QueueAudio
    SDL_AudioSpec have;
    mDevice = SDL_OpenAudioDevice(nullptr, 0, &want, &have, 0);
    if (mDevice == 0) {
        return;
    }
    SDL_PauseAudioDevice(mDevice, 0);
}

int SdlAudioSink::deliver(const uint8_t* pcm, int size) {
    if (mStopped || size <= 0) {
        return -1;
    }
    if (mDevice == 0) {
        return mFallback.deliver(pcm, size);
    }
    const Uint32 bytesPerMs =
        static_cast<Uint32>(mSampleRate * mOpenSpeed) * static_cast<Uint32>(mChannels) * 2 / 1000;
    const Uint32 limit = bytesPerMs * kQueueMs;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(kMaxWaitMs);
    while (!mStopped && SDL_GetQueuedAudioSize(mDevice) > limit && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    if (mStopped) {
        return -1;
    }
    return SDL_QueueAudio(mDevice, pcm, static_cast<Uint32>(size)) == 0 ? 0 : -1;
}

void SdlAudioSink::setSpeed(double speed) {
    mSpeed = speed;
    mFallback.setSpeed(speed);
}

void SdlAudioSink::clear() {
    if (mDevice != 0) {
        SDL_ClearQueuedAudio(mDevice);
    }
}

void SdlAudioSink::stop() {
    mStopped = true;
    mFallback.stop();
    clear();
}

#endif  // KAVRA_HAVE_SDL2
