#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

// An H.264 decoder configuration record (ISO/IEC 14496-15 'avcC'): the
// stream's parameter sets and the size of the length field in front of each
// NAL unit of its packets. Also reads the parameter sets an encoder gives
// in Annex B form (start codes), and turns Annex B packets into length-
// prefixed ones.
class AvcConfig {
public:
    // Reads a record, or Annex B parameter sets. False when neither parses.
    bool parse(const uint8_t* data, size_t size);

    int nalLengthSize() const { return mLengthSize; }
    const std::vector<std::vector<uint8_t>>& sps() const { return mSps; }
    const std::vector<std::vector<uint8_t>>& pps() const { return mPps; }
    // seq_parameter_set_id of each SPS, pic_parameter_set_id of each PPS
    // (-1 where one cannot be read).
    std::vector<int> spsIds() const;
    std::vector<int> ppsIds() const;

    // A record with this one's profile, level and length size carrying its
    // own parameter sets followed by the other's.
    std::vector<uint8_t> mergedWith(const AvcConfig& other) const;

    // Whether a length-prefixed packet holds a slice of an IDR picture.
    static bool hasIdrSlice(const uint8_t* data, size_t size, int nalLengthSize);
    // Whether a length-prefixed packet holds slices and none of them is a
    // reference (nal_ref_idc 0).
    static bool hasOnlyNonReferenceSlices(const uint8_t* data, size_t size, int nalLengthSize);
    // The NAL units of an Annex B packet, each behind a big-endian length of
    // nalLengthSize bytes, parameter sets left out (the record carries them).
    static void annexBToLengthPrefixed(const uint8_t* data, size_t size, int nalLengthSize,
                                       std::vector<uint8_t>* out);

private:
    bool parseRecord(const uint8_t* data, size_t size);
    bool parseAnnexB(const uint8_t* data, size_t size);

    uint8_t mProfile = 0;
    uint8_t mCompatibility = 0;
    uint8_t mLevel = 0;
    int mLengthSize = 4;
    std::vector<std::vector<uint8_t>> mSps;
    std::vector<std::vector<uint8_t>> mPps;
    std::vector<uint8_t> mExtension;  // chroma format and bit depths of High profiles
};
