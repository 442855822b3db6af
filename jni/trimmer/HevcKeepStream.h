#pragma once

#include "trimmer/HevcConfig.h"
#include "trimmer/KeepCodecStream.h"

// HEVC kept: x265 numbers its parameter sets 0, so they and the encoded
// slices are renumbered to ids the input does not use; copies start at IRAP
// pictures (IDR, CRA, BLA), without their leading pictures.
class HevcKeepStream : public KeepCodecStream {
public:
    int openEncoder(kavra::ScopedAVCodecContext* encoder, std::string* why) const override;
    std::vector<uint8_t> record() const override { return mInputConfig.mergedWith(mEncoderConfig); }
    uint32_t codecTag() const override;
    bool isJoinPoint(const uint8_t* data, size_t size) const override;
    // Always false: a sub-layer non-reference picture may still be referred
    // to by pictures of a higher temporal layer.
    bool isDisposable(const uint8_t*, size_t) const override { return false; }
    bool toOutput(const uint8_t* data, size_t size, std::vector<uint8_t>* out) const override;
    bool mayLead(const uint8_t* data, size_t size) const override;
    bool isLeading(const uint8_t* data, size_t size) const override;
    // A CRA picture becomes a BLA picture (broken link): its leading
    // pictures would refer to pictures the output does not have.
    int markJoin(AVPacket* packet) const override;

private:
    int configure(kavra::ScopedAVCodecContext* encoder, std::string* why) override;

    HevcConfig::Ids mIds{0, 0, 0};
    HevcConfig mInputConfig;
    HevcConfig mEncoderConfig;
};
