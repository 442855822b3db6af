#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Common/FFmpegPtr.h"

// What a trim that keeps the input's video codec needs to know about that
// codec: the input's configuration record, an encoder for the same codec
// whose parameter sets get ids the input does not use, the output's record
// carrying both, which packets a copy may start at, and how an encoded
// packet is written beside copied ones.
class KeepCodecStream {
public:
    virtual ~KeepCodecStream() = default;

    // The stream for an input codec, or null for a codec that cannot be kept.
    static std::unique_ptr<KeepCodecStream> forCodec(AVCodecID codec);

    // Reads the input's record, chooses the encoder's ids and opens a first
    // encoder. 0, or -1 with the reason in *why.
    int setUp(const AVCodecContext* decoder, const AVCodecParameters* input, AVRational frameRate,
              AVRational sampleAspect, kavra::ScopedAVCodecContext* encoder, std::string* why);
    // Opens another encoder like the first.
    virtual int openEncoder(kavra::ScopedAVCodecContext* encoder, std::string* why) const = 0;
    // The output's record: the input's parameter sets, then the encoder's.
    virtual std::vector<uint8_t> record() const = 0;
    // The output's sample entry.
    virtual uint32_t codecTag() const = 0;
    // Whether a copy may start at this input packet: nothing decoded from it
    // on refers to a picture before it.
    virtual bool isJoinPoint(const uint8_t* data, size_t size) const = 0;
    // Whether pictures shown before this key picture may follow it in
    // decoding order (leading pictures).
    virtual bool mayLead(const uint8_t* data, size_t size) const = 0;
    // Whether this input packet holds a leading picture.
    virtual bool isLeading(const uint8_t* data, size_t size) const = 0;
    // Prepares the key picture a copy starts at to follow other pictures
    // (the packet may be changed). 0, or negative on failure.
    virtual int markJoin(AVPacket* packet) const = 0;
    // Whether no other picture refers to the picture of this input packet,
    // so that it need not be decoded when it is not kept.
    virtual bool isDisposable(const uint8_t* data, size_t size) const = 0;
    // An encoded packet (Annex B) as the output carries it. False when it
    // cannot be converted.
    virtual bool toOutput(const uint8_t* data, size_t size, std::vector<uint8_t>* out) const = 0;

protected:
    // setUp's work once the input is known: the input's record is
    // input->extradata.
    virtual int configure(kavra::ScopedAVCodecContext* encoder, std::string* why) = 0;

    const AVCodecContext* mDecoder = nullptr;
    const AVCodecParameters* mInput = nullptr;
    AVRational mFrameRate{30, 1};
    AVRational mSampleAspect{0, 1};
};
