#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// Reads the payload of one H.264 or HEVC NAL unit bit by bit, with the
// emulation-prevention bytes taken out, and writes a copy in which some
// fields are changed: each read either copies what it read or writes a
// replacement. nal() gives the new NAL unit, header included, with
// emulation prevention put back.
class RbspEditor {
public:
    // `headerBytes` of the unit are its NAL header, copied as they are.
    RbspEditor(const uint8_t* nal, size_t size, size_t headerBytes);

    // Copies `n` (at most 32) bits; returns their value.
    uint32_t copyBits(int n);
    // Reads `n` bits and writes `value` in their place; returns what was read.
    uint32_t replaceBits(int n, uint32_t value);
    // Copies an Exp-Golomb code; returns its value (-1 when unreadable).
    int64_t copyUe();
    // Reads an Exp-Golomb code and writes `value` instead; returns what was
    // read (-1 when unreadable).
    int64_t replaceUe(uint32_t value);
    // Copies everything left, trailing bits included.
    void copyRest();
    // Copies what is left before the stop bit, then ends the payload with a
    // new stop bit and zero bits up to a byte boundary (for when an edit
    // changed the payload's length by other than whole bytes).
    void copyRestAndRealign();

    size_t bitsRead() const { return mReadPos; }
    size_t bitsWritten() const { return mWritten.size() * 8 - static_cast<size_t>(mFree); }
    bool failed() const { return mFailed; }
    // The edited unit; empty after a failed read.
    std::vector<uint8_t> nal() const;

private:
    int readBit();
    void writeBit(int bit);
    void writeUe(uint32_t value);

    std::vector<uint8_t> mHeader;
    std::vector<uint8_t> mRbsp;
    size_t mReadPos = 0;
    std::vector<uint8_t> mWritten;
    int mFree = 0;  // unused low bits of mWritten's last byte
    bool mFailed = false;
};
