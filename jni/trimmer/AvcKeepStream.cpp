#include "trimmer/AvcKeepStream.h"

#include <algorithm>

#include "trimmer/H264Encoder.h"

int AvcKeepStream::configure(kavra::ScopedAVCodecContext* encoder, std::string* why) {
    if (!mInputConfig.parse(mInput->extradata, static_cast<size_t>(mInput->extradata_size))) {
        *why = "the H.264 configuration record cannot be read";
        return -1;
    }
    // An id that none of the input's SPS or PPS uses (x264 gives its PPS
    // the id of its SPS).
    std::vector<int> used = mInputConfig.spsIds();
    std::vector<int> ppsIds = mInputConfig.ppsIds();
    used.insert(used.end(), ppsIds.begin(), ppsIds.end());
    if (std::find(used.begin(), used.end(), -1) != used.end()) {
        *why = "the input's parameter sets cannot be read";
        return -1;
    }
    mParameterSetId = -1;
    for (int id = 1; id < 32 && mParameterSetId < 0; ++id) {
        if (std::find(used.begin(), used.end(), id) == used.end()) {
            mParameterSetId = id;
        }
    }
    if (mParameterSetId < 0) {
        *why = "the input uses every parameter set id";
        return -1;
    }
    if (openEncoder(encoder, why) < 0) {
        return -1;
    }
    if (!mEncoderConfig.parse((*encoder)->extradata, static_cast<size_t>(std::max(0, (*encoder)->extradata_size))) ||
        mEncoderConfig.spsIds() != std::vector<int>{mParameterSetId} ||
        mEncoderConfig.ppsIds() != std::vector<int>{mParameterSetId}) {
        *why = "the encoder's parameter sets do not have the chosen id";
        return -1;
    }
    return 0;
}

int AvcKeepStream::openEncoder(kavra::ScopedAVCodecContext* encoder, std::string* why) const {
    return H264Encoder::open(mDecoder, mInput, mFrameRate, mSampleAspect, mParameterSetId, encoder, why);
}

bool AvcKeepStream::isJoinPoint(const uint8_t* data, size_t size) const {
    return AvcConfig::hasIdrSlice(data, size, mInputConfig.nalLengthSize());
}

bool AvcKeepStream::isDisposable(const uint8_t* data, size_t size) const {
    return AvcConfig::hasOnlyNonReferenceSlices(data, size, mInputConfig.nalLengthSize());
}

bool AvcKeepStream::toOutput(const uint8_t* data, size_t size, std::vector<uint8_t>* out) const {
    AvcConfig::annexBToLengthPrefixed(data, size, mInputConfig.nalLengthSize(), out);
    return true;
}
