#pragma once

#include "trimmer/AvcConfig.h"
#include "trimmer/KeepCodecStream.h"

// H.264 kept: x264 gives its SPS and PPS an id the input does not use, and
// copies start at IDR pictures.
class AvcKeepStream : public KeepCodecStream {
public:
    int openEncoder(kavra::ScopedAVCodecContext* encoder, std::string* why) const override;
    std::vector<uint8_t> record() const override { return mInputConfig.mergedWith(mEncoderConfig); }
    uint32_t codecTag() const override { return 0; }
    bool isJoinPoint(const uint8_t* data, size_t size) const override;
    bool isDisposable(const uint8_t* data, size_t size) const override;
    // An IDR picture has no leading pictures and needs no mark.
    bool mayLead(const uint8_t*, size_t) const override { return false; }
    bool isLeading(const uint8_t*, size_t) const override { return false; }
    int markJoin(AVPacket*) const override { return 0; }
    bool toOutput(const uint8_t* data, size_t size, std::vector<uint8_t>* out) const override;

private:
    int configure(kavra::ScopedAVCodecContext* encoder, std::string* why) override;

    int mParameterSetId = 0;
    AvcConfig mInputConfig;
    AvcConfig mEncoderConfig;
};
