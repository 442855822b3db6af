#pragma once

#include <atomic>
#include <cstdint>

extern "C" {
#include <libavcodec/packet.h>
#include <libavformat/avformat.h>
}

// Which video packets a frame-accurate seek may leave undecoded: H.264
// pictures that no other picture refers to (every slice has nal_ref_idc 0)
// and whose span ends at or before the seek's target. They would be decoded
// only to be dropped, and leaving them out changes no other picture, so the
// target is reached sooner. Other codecs, key frames and packets without a
// time are always decoded. The floor is set by the seeking thread and read
// by the demux thread.
class DecodeFloor {
public:
    // Takes the codec, time base and NAL framing of the video stream.
    void configure(const AVStream* stream);
    // The target in ms on the stream's clock; -1 turns skipping off.
    void set(int ms) { mFloorMs = ms; }
    int get() const { return mFloorMs.load(); }
    bool skips(const AVPacket* pkt) const;

private:
    // True when the packet has slices and none is a reference.
    bool nonReference(const uint8_t* data, int size) const;

    std::atomic<int> mFloorMs{-1};
    bool mH264 = false;
    // Bytes of each NAL unit's length prefix (avcC); 0 for start codes.
    int mLengthSize = 0;
    AVRational mTimeBase{0, 1};
};
