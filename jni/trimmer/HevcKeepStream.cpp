#include "trimmer/HevcKeepStream.h"

#include <algorithm>

#include "trimmer/H265Encoder.h"

namespace {

// The first id in [low, high] that `used` does not hold, or -1.
int unusedId(const std::vector<int>& used, int low, int high) {
    for (int id = low; id <= high; ++id) {
        if (std::find(used.begin(), used.end(), id) == used.end()) {
            return id;
        }
    }
    return -1;
}

bool readable(const std::vector<int>& ids) { return std::find(ids.begin(), ids.end(), -1) == ids.end(); }

}  // namespace

int HevcKeepStream::configure(kavra::ScopedAVCodecContext* encoder, std::string* why) {
    if (!mInputConfig.parse(mInput->extradata, static_cast<size_t>(mInput->extradata_size))) {
        *why = "the HEVC configuration record cannot be read";
        return -1;
    }
    const std::vector<int> vps = mInputConfig.ids(HevcConfig::kVps);
    const std::vector<int> sps = mInputConfig.ids(HevcConfig::kSps);
    const std::vector<int> pps = mInputConfig.ids(HevcConfig::kPps);
    if (!readable(vps) || !readable(sps) || !readable(pps)) {
        *why = "the input's parameter sets cannot be read";
        return -1;
    }
    // The encoder's slices name PPS 0 in one bit; an id of 15 to 30 takes
    // nine, which keeps the slice data behind it on a byte boundary.
    mIds = {unusedId(vps, 1, 15), unusedId(sps, 1, 15), unusedId(pps, 15, 30)};
    if (mIds.vps < 0 || mIds.sps < 0 || mIds.pps < 0) {
        *why = "the input uses every parameter set id";
        return -1;
    }
    if (openEncoder(encoder, why) < 0) {
        return -1;
    }
    HevcConfig produced;
    const std::vector<int> zero{0};
    if (!produced.parse((*encoder)->extradata, static_cast<size_t>(std::max(0, (*encoder)->extradata_size))) ||
        produced.ids(HevcConfig::kVps) != zero || produced.ids(HevcConfig::kSps) != zero ||
        produced.ids(HevcConfig::kPps) != zero || !produced.renumbered(mIds, &mEncoderConfig)) {
        *why = "the encoder's parameter sets cannot be renumbered";
        return -1;
    }
    return 0;
}

int HevcKeepStream::openEncoder(kavra::ScopedAVCodecContext* encoder, std::string* why) const {
    return H265Encoder::open(mDecoder, mInput, mFrameRate, mSampleAspect, encoder, why);
}

uint32_t HevcKeepStream::codecTag() const {
    // Parameter sets only in the record, as 'hvc1' promises.
    return MKTAG('h', 'v', 'c', '1');
}

bool HevcKeepStream::isJoinPoint(const uint8_t* data, size_t size) const {
    return HevcConfig::isIrap(HevcConfig::firstSliceType(data, size, mInputConfig.nalLengthSize()));
}

bool HevcKeepStream::mayLead(const uint8_t* data, size_t size) const {
    return HevcConfig::mayLead(HevcConfig::firstSliceType(data, size, mInputConfig.nalLengthSize()));
}

bool HevcKeepStream::isLeading(const uint8_t* data, size_t size) const {
    return HevcConfig::isLeading(HevcConfig::firstSliceType(data, size, mInputConfig.nalLengthSize()));
}

int HevcKeepStream::markJoin(AVPacket* packet) const {
    if (HevcConfig::firstSliceType(packet->data, static_cast<size_t>(packet->size), mInputConfig.nalLengthSize()) !=
        HevcConfig::kCra) {
        return 0;
    }
    int ret = av_packet_make_writable(packet);
    if (ret < 0) {
        return ret;
    }
    return HevcConfig::craToBla(packet->data, static_cast<size_t>(packet->size), mInputConfig.nalLengthSize()) ? 0
                                                                                                           : -1;
}

bool HevcKeepStream::toOutput(const uint8_t* data, size_t size, std::vector<uint8_t>* out) const {
    return HevcConfig::annexBToLengthPrefixed(data, size, mInputConfig.nalLengthSize(), mIds.pps, out);
}
