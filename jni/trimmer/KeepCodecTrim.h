#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Common/FFmpegPtr.h"
#include "trimmer/KeepCodecStream.h"
#include "trimmer/VideoReencoder.h"

class TrimInput;
class TrimMuxer;

// A trim that keeps the input's H.264 or HEVC video: packets are copied byte
// for byte from the first key picture a copy can start at (see
// KeepCodecStream) at or after a cut, and only the frames a copy cannot
// carry are decoded and re-encoded with the same codec: those from the cut
// to that picture (with its leading pictures), and at the end of a part
// those that depend on a picture after it. The output's configuration record carries
// the input's parameter sets and the encoder's, whose ids differ from the
// input's.
//
// Each run of encoded frames starts with an IDR picture of its own and has
// no B-frames; copied packets keep their order. Output presentation times
// count frames from 0 and decoding times count packets, starting the
// input's reordering delay before 0.
class KeepCodecTrim : public EncodedPacketSink {
public:
    // One piece of the input kept, as VideoTrimer reads it: frames shown in
    // [videoLow, videoHigh] (video ticks), audio packets starting in
    // [audioLow, audioHigh) (audio ticks).
    struct Part {
        int64_t videoLow;
        int64_t videoHigh;
        int64_t audioLow;
        int64_t audioHigh;
    };

    KeepCodecTrim(TrimInput& input, TrimMuxer& muxer, VideoReencoder& reencoder);
    KeepCodecTrim(const KeepCodecTrim&) = delete;
    KeepCodecTrim& operator=(const KeepCodecTrim&) = delete;

    // Checks that the input can be trimmed this way and gives the output's
    // video stream the input's codec with both sets of parameter sets. 0, or
    // -1 with the reason in *why (the trim then re-encodes to MPEG-4).
    int setUp(const AVCodecContext* decoder, AVRational frameRate, AVRational sampleAspect, std::string* why);

    // Before the first part: the input's frame length in video ticks, the
    // default audio packet length in audio ticks, and what to call for each
    // packet read (progress).
    void begin(int64_t frameTicks, int64_t audioTicks, std::function<void(const AVPacket*)> onRead);
    // Writes one part. 0, or negative when encoding failed.
    int runPart(const Part& part);

    // Encoded packets, in Annex B form, into the output; AVERROR_INVALIDDATA
    // when one cannot be put beside the copied packets.
    int writeEncodedPacket(AVPacket* packet) override;

private:
    int encodeRun(int64_t low, int64_t high, int64_t stopAtKey, bool last, const Part& part);
    int64_t copyRun(int64_t key, const Part& part, bool* tailNeeded);
    // Writes an audio packet that belongs to the part and was not written
    // yet; true once audio has passed the part.
    bool takeAudio(AVPacket* packet, const Part& part);
    int64_t framesBetween(int64_t from, int64_t to) const;

    TrimInput& mInput;
    TrimMuxer& mMuxer;
    VideoReencoder& mReencoder;
    const AVCodecContext* mDecoder;
    const AVCodecParameters* mInputParams;
    AVRational mFrameRate;
    std::unique_ptr<KeepCodecStream> mStream;
    kavra::ScopedAVCodecContext mSpareEncoder;  // opened, not used yet

    int64_t mFrameTicks;
    int64_t mAudioTicks;
    std::function<void(const AVPacket*)> mOnRead;
    int64_t mDelayFrames;  // output presentation times run this many frames ahead of decoding times
    int64_t mPresented;    // frames written, in presentation order
    int64_t mDecoded;      // packets written, in decoding order
    int64_t mLastAudioTime;
    kavra::ScopedAVPacket mEncoded;
    std::vector<uint8_t> mNalBuffer;
};
