#pragma once

// Walking NAL units in Annex B form (each behind a start code) and in MP4
// form (each behind a big-endian length), and writing that length.

#include <cstddef>
#include <cstdint>
#include <vector>

namespace nalunits {

// Calls f(start, size) for each NAL unit of an Annex B buffer; a unit ends
// at the next start code or at the buffer's end.
template <typename F>
void forEachNal(const uint8_t* data, size_t size, F f) {
    size_t i = 0;
    size_t start = SIZE_MAX;
    while (i + 3 <= size) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 1) {
            if (start != SIZE_MAX) {
                size_t end = i;
                while (end > start && data[end - 1] == 0) {
                    --end;
                }
                f(data + start, end - start);
            }
            i += 3;
            start = i;
        } else {
            ++i;
        }
    }
    if (start != SIZE_MAX && start < size) {
        f(data + start, size - start);
    }
}

// Calls f(unit) for each NAL unit of a packet in MP4 form, lengths of
// nalLengthSize bytes, while f returns true. False when the packet is not
// framed that way.
template <typename Byte, typename F>
bool forEachLengthPrefixedNal(Byte* data, size_t size, int nalLengthSize, F f) {
    size_t pos = 0;
    while (pos + static_cast<size_t>(nalLengthSize) < size) {
        size_t len = 0;
        for (int i = 0; i < nalLengthSize; ++i) {
            len = (len << 8) | data[pos + static_cast<size_t>(i)];
        }
        pos += static_cast<size_t>(nalLengthSize);
        if (len == 0 || pos + len > size) {
            return false;
        }
        if (!f(data + pos)) {
            return true;
        }
        pos += len;
    }
    return pos == size;
}

inline void putLength(std::vector<uint8_t>* out, size_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) {
        out->push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

// Whether a buffer starts with a start code.
inline bool startsWithStartCode(const uint8_t* data, size_t size) {
    return size >= 3 && data[0] == 0 && data[1] == 0 && (data[2] == 1 || (size >= 4 && data[2] == 0 && data[3] == 1));
}

}  // namespace nalunits
