#pragma once

#ifdef KAVRA_HAVE_SDL2

#include <atomic>
#include <cstdint>
#include <memory>

#include "Platform/PcmSink.h"
#include "VirtualAudioDevice.h"

// Plays PCM through the desktop's sound device. The device is opened at the
// format of the first chunk and reopened when a chunk comes in another
// (an audio track switch) or at another speed. A write blocks while the device's queue holds
// more than a short length of sound, as a device's write does, for a
// bounded time; stop() cuts it short. Without a usable sound device, the
// sound goes to a virtual device that keeps the same pace.
class SdlAudioSink : public PcmSink {
public:
    SdlAudioSink();
    ~SdlAudioSink() override;
    SdlAudioSink(const SdlAudioSink&) = delete;
    SdlAudioSink& operator=(const SdlAudioSink&) = delete;

    void willDeliver(int ptsMs, int sampleRate, int channels) override;
    int deliver(const uint8_t* pcm, int size) override;
    // Ends every wait and silences the device; later writes are dropped.
    void stop();
    // Plays `speed` times faster (and higher) from the next chunk on, so
    // the sound keeps pace with the picture at that speed.
    void setSpeed(double speed);
    // Empties the device's queue (after a seek, or when pausing).
    void clear();
    bool usesSoundCard() const { return mDevice != 0; }

private:
    void closeDevice();

    // Opened and closed on the audio thread, cleared from the control thread.
    std::atomic<uint32_t> mDevice;
    int mSampleRate;
    int mChannels;
    // Written by the control thread, read on the audio thread.
    std::atomic<double> mSpeed;
    double mOpenSpeed;
    bool mAudioInitialised;
    std::atomic<bool> mStopped;
    VirtualAudioDevice mFallback;
};

#endif  // KAVRA_HAVE_SDL2
