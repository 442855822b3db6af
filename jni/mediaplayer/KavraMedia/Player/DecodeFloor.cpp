#include "Player/DecodeFloor.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace {
constexpr int kSliceNonIdr = 1;
constexpr int kSliceIdr = 5;
}  // namespace

void DecodeFloor::configure(const AVStream* stream) {
    mFloorMs = -1;
    mH264 = false;
    mLengthSize = 0;
    if (stream == nullptr || stream->codecpar == nullptr || stream->codecpar->codec_id != AV_CODEC_ID_H264 ||
        stream->time_base.num <= 0 || stream->time_base.den <= 0) {
        return;
    }
    const AVCodecParameters* par = stream->codecpar;
    if (par->extradata != nullptr && par->extradata_size >= 7 && par->extradata[0] == 1) {
        mLengthSize = (par->extradata[4] & 3) + 1;
    }
    mTimeBase = stream->time_base;
    mH264 = true;
}

bool DecodeFloor::skips(const AVPacket* pkt) const {
    const int floor = mFloorMs.load();
    if (floor < 0 || !mH264 || pkt == nullptr || pkt->data == nullptr || (pkt->flags & AV_PKT_FLAG_KEY) ||
        pkt->pts == AV_NOPTS_VALUE || pkt->duration <= 0 || pkt->pts > INT64_MAX - pkt->duration) {
        return false;
    }
    // The picture's span ends after the target: it may be the one shown.
    if (av_compare_ts(pkt->pts + pkt->duration, mTimeBase, floor, AVRational{1, 1000}) > 0) {
        return false;
    }
    return nonReference(pkt->data, pkt->size);
}

bool DecodeFloor::nonReference(const uint8_t* data, int size) const {
    int slices = 0;
    auto look = [&slices](uint8_t header) {
        const int type = header & 0x1f;
        if (type == kSliceNonIdr || type == kSliceIdr) {
            ++slices;
            return (header & 0x60) == 0;
        }
        return true;
    };
    if (mLengthSize > 0) {
        int64_t pos = 0;
        while (pos + mLengthSize <= size) {
            int64_t length = 0;
            for (int i = 0; i < mLengthSize; ++i) {
                length = (length << 8) | data[pos + i];
            }
            pos += mLengthSize;
            if (length <= 0 || pos + length > size) {
                return false;  // not framed as expected: decode it
            }
            if (!look(data[pos])) {
                return false;
            }
            pos += length;
        }
        return slices > 0 && pos == size;
    }
    for (int i = 0; i + 3 < size; ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            if (!look(data[i + 3])) {
                return false;
            }
            i += 2;
        }
    }
    return slices > 0;
}
