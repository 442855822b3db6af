#include "Source/ReadProgressGuard.h"

ReadProgressGuard::Outcome ReadProgressGuard::onRead(int result, AVFormatContext* input) {
    if (result >= 0) {
        reset();
        return READ_PACKET;
    }
    AVIOContext* io = input != nullptr ? input->pb : nullptr;
    if (result == AVERROR_EOF || io == nullptr || avio_feof(io)) {
        reset();
        return READ_END;
    }
    const int64_t position = avio_tell(io);
    mStalled = position == mLastPosition ? mStalled + 1 : 1;
    mLastPosition = position;
    mFailures += 1;
    if (mStalled >= kMaxStalledFailures || mFailures >= kMaxFailures) {
        reset();
        mDamaged = true;
        return READ_DAMAGED;
    }
    return READ_RETRY;
}

void ReadProgressGuard::reset() {
    mFailures = 0;
    mStalled = 0;
    mLastPosition = -1;
}
