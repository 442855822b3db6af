#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// An HEVC decoder configuration record (ISO/IEC 14496-15 'hvcC'): the
// stream's video, sequence and picture parameter sets and the size of the
// length field in front of each NAL unit of its packets. Also reads the
// parameter sets an encoder gives in Annex B form (start codes), gives an
// encoder's parameter sets and slices new ids, and turns Annex B packets
// into length-prefixed ones.
class HevcConfig {
public:
    static constexpr int kVps = 32;
    static constexpr int kSps = 33;
    static constexpr int kPps = 34;

    // Reads a record, or Annex B parameter sets. False when neither parses.
    bool parse(const uint8_t* data, size_t size);

    int nalLengthSize() const { return mLengthSize; }
    // The ids of the parameter sets of one kind (-1 where one cannot be read).
    std::vector<int> ids(int type) const;

    // The ids this one's parameter sets get in renumbered(): every VPS, SPS
    // and PPS takes the one id given for its kind.
    struct Ids {
        int vps;
        int sps;
        int pps;
    };
    // A copy whose parameter sets carry `ids` and refer to each other by
    // them. False when a set cannot be read.
    bool renumbered(const Ids& ids, HevcConfig* out) const;

    // A record with this one's general fields and length size, carrying its
    // own parameter sets followed by the other's.
    std::vector<uint8_t> mergedWith(const HevcConfig& other) const;

    static constexpr int kCra = 21;

    // The NAL unit type of the first slice of a length-prefixed packet, or
    // -1 when it has none.
    static int firstSliceType(const uint8_t* data, size_t size, int nalLengthSize);
    // Random access points: BLA, IDR and CRA pictures.
    static bool isIrap(int type) { return type >= 16 && type <= 21; }
    // Random access points that may have leading pictures.
    static bool mayLead(int type) { return type == 16 || type == 17 || type == 19 || type == kCra; }
    // RADL and RASL pictures.
    static bool isLeading(int type) { return type >= 6 && type <= 9; }
    // Turns the CRA slices of a length-prefixed packet into BLA slices that
    // may have leading pictures (BLA_W_LP): a decoder then drops the RASL
    // pictures that follow. False when the packet is not framed as expected.
    static bool craToBla(uint8_t* data, size_t size, int nalLengthSize);
    // The NAL units of an Annex B packet, each behind a big-endian length of
    // nalLengthSize bytes, parameter sets left out (the record carries them)
    // and every slice referring to picture parameter set `ppsId` instead of
    // 0. An encoder's slices refer to PPS 0 in one bit, so `ppsId` must take
    // 9 (15 to 30): the slice data behind it then stays byte-aligned. False
    // when a slice cannot be read.
    static bool annexBToLengthPrefixed(const uint8_t* data, size_t size, int nalLengthSize, int ppsId,
                                       std::vector<uint8_t>* out);

private:
    bool parseRecord(const uint8_t* data, size_t size);
    bool parseAnnexB(const uint8_t* data, size_t size);
    std::vector<std::vector<uint8_t>>* setsOf(int type);
    const std::vector<std::vector<uint8_t>>* setsOf(int type) const;

    std::vector<uint8_t> mGeneral;  // the record's fields before its arrays
    int mLengthSize = 4;
    std::vector<std::vector<uint8_t>> mVps;
    std::vector<std::vector<uint8_t>> mSps;
    std::vector<std::vector<uint8_t>> mPps;
};
