#include "trimmer/RbspEditor.h"

#include <algorithm>

RbspEditor::RbspEditor(const uint8_t* nal, size_t size, size_t headerBytes) {
    if (nal == nullptr || size < headerBytes) {
        mFailed = true;
        return;
    }
    mHeader.assign(nal, nal + headerBytes);
    mRbsp.reserve(size);
    int zeros = 0;
    for (size_t i = headerBytes; i < size; ++i) {
        if (zeros >= 2 && nal[i] == 3) {
            zeros = 0;
            continue;
        }
        zeros = nal[i] == 0 ? zeros + 1 : 0;
        mRbsp.push_back(nal[i]);
    }
    mWritten.reserve(size + 8);
}

int RbspEditor::readBit() {
    if (mReadPos >= mRbsp.size() * 8) {
        mFailed = true;
        return 0;
    }
    int bit = (mRbsp[mReadPos / 8] >> (7 - mReadPos % 8)) & 1;
    ++mReadPos;
    return bit;
}

void RbspEditor::writeBit(int bit) {
    if (mFree == 0) {
        mWritten.push_back(0);
        mFree = 8;
    }
    --mFree;
    if (bit != 0) {
        mWritten.back() = static_cast<uint8_t>(mWritten.back() | (1 << mFree));
    }
}

void RbspEditor::writeUe(uint32_t value) {
    const uint64_t code = static_cast<uint64_t>(value) + 1;
    int length = 0;
    while ((code >> length) > 1) {
        ++length;
    }
    for (int i = 0; i < length; ++i) {
        writeBit(0);
    }
    for (int i = length; i >= 0; --i) {
        writeBit(static_cast<int>((code >> i) & 1));
    }
}

uint32_t RbspEditor::copyBits(int n) {
    uint32_t value = 0;
    for (int i = 0; i < n; ++i) {
        int bit = readBit();
        writeBit(bit);
        value = (value << 1) | static_cast<uint32_t>(bit);
    }
    return value;
}

uint32_t RbspEditor::replaceBits(int n, uint32_t value) {
    uint32_t old = 0;
    for (int i = 0; i < n; ++i) {
        old = (old << 1) | static_cast<uint32_t>(readBit());
    }
    for (int i = n - 1; i >= 0; --i) {
        writeBit(static_cast<int>((value >> i) & 1));
    }
    return old;
}

namespace {
// Reads an Exp-Golomb code through `bit`; -1 when it is longer than 32 bits.
template <typename F>
int64_t readUe(F bit, bool* failed) {
    int zeros = 0;
    while (bit() == 0 && !*failed) {
        if (++zeros > 31) {
            *failed = true;
            return -1;
        }
    }
    uint64_t value = 1;
    for (int i = 0; i < zeros; ++i) {
        value = (value << 1) | static_cast<uint64_t>(bit());
    }
    return *failed ? -1 : static_cast<int64_t>(value - 1);
}
}  // namespace

int64_t RbspEditor::copyUe() {
    int64_t value = readUe([this] { return readBit(); }, &mFailed);
    if (value >= 0) {
        writeUe(static_cast<uint32_t>(value));
    }
    return value;
}

int64_t RbspEditor::replaceUe(uint32_t value) {
    int64_t old = readUe([this] { return readBit(); }, &mFailed);
    writeUe(value);
    return old;
}

void RbspEditor::copyRest() {
    // Bit by bit up to a byte boundary of the input; then whole bytes, which
    // is exact when the output is aligned the same way, else bit by bit.
    while (mReadPos % 8 != 0 && !mFailed) {
        writeBit(readBit());
    }
    size_t from = mReadPos / 8;
    if (mFree == 0) {
        mWritten.insert(mWritten.end(), mRbsp.begin() + static_cast<long>(from), mRbsp.end());
        mFree = 0;
        mReadPos = mRbsp.size() * 8;
        return;
    }
    while (mReadPos < mRbsp.size() * 8) {
        writeBit(readBit());
    }
}

void RbspEditor::copyRestAndRealign() {
    // The stop bit is the last bit set in the payload.
    size_t end = mRbsp.size();
    while (end > 0 && mRbsp[end - 1] == 0) {
        --end;
    }
    if (end == 0) {
        mFailed = true;
        return;
    }
    int low = 0;
    while (((mRbsp[end - 1] >> low) & 1) == 0) {
        ++low;
    }
    const size_t stop = end * 8 - 1 - static_cast<size_t>(low);
    if (stop < mReadPos) {
        mFailed = true;
        return;
    }
    while (mReadPos < stop) {
        writeBit(readBit());
    }
    writeBit(1);
    mFree = 0;
    mReadPos = mRbsp.size() * 8;
}

std::vector<uint8_t> RbspEditor::nal() const {
    std::vector<uint8_t> out;
    if (mFailed) {
        return out;
    }
    out.reserve(mHeader.size() + mWritten.size() + mWritten.size() / 64 + 2);
    out = mHeader;
    int zeros = 0;
    for (uint8_t b : mWritten) {
        if (zeros >= 2 && b <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    if (!mWritten.empty() && mWritten.back() == 0) {
        out.push_back(3);
    }
    return out;
}
