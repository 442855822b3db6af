#include "trimmer/HevcConfig.h"

#include "trimmer/NalUnits.h"
#include "trimmer/RbspEditor.h"

namespace {

constexpr size_t kGeneralBytes = 22;  // a record's fields before its arrays
constexpr int kBlaWithLeading = 16;
constexpr int kFirstIrap = 16;
constexpr int kLastIrap = 23;
constexpr int kLastSlice = 31;

int nalType(const uint8_t* nal) { return (nal[0] >> 1) & 0x3F; }

// Copies profile_tier_level(1, maxSubLayersMinus1) of an SPS or VPS.
void copyProfileTierLevel(RbspEditor* r, int maxSubLayersMinus1) {
    r->copyBits(32);  // profile space, tier, profile, first compatibility flags
    r->copyBits(32);
    r->copyBits(24);  // progressive ... inbld flags, to 88 bits
    r->copyBits(8);   // general_level_idc
    int profilePresent = 0;
    int levelPresent = 0;
    for (int i = 0; i < maxSubLayersMinus1; ++i) {
        profilePresent |= static_cast<int>(r->copyBits(1)) << i;
        levelPresent |= static_cast<int>(r->copyBits(1)) << i;
    }
    if (maxSubLayersMinus1 > 0) {
        r->copyBits(2 * (8 - maxSubLayersMinus1));
    }
    for (int i = 0; i < maxSubLayersMinus1; ++i) {
        if ((profilePresent >> i) & 1) {
            r->copyBits(32);
            r->copyBits(32);
            r->copyBits(24);
        }
        if ((levelPresent >> i) & 1) {
            r->copyBits(8);
        }
    }
}

// Reads (and, with `ids`, renumbers) one parameter set: *id is its own id.
std::vector<uint8_t> editParameterSet(const std::vector<uint8_t>& nal, const HevcConfig::Ids* ids, int* id) {
    RbspEditor r(nal.data(), nal.size(), 2);
    switch (nalType(nal.data())) {
    case HevcConfig::kVps:
        *id = static_cast<int>(ids ? r.replaceBits(4, static_cast<uint32_t>(ids->vps)) : r.copyBits(4));
        break;
    case HevcConfig::kSps: {
        if (ids) {
            r.replaceBits(4, static_cast<uint32_t>(ids->vps));
        } else {
            r.copyBits(4);
        }
        int maxSubLayersMinus1 = static_cast<int>(r.copyBits(3));
        r.copyBits(1);
        copyProfileTierLevel(&r, maxSubLayersMinus1);
        *id = static_cast<int>(ids ? r.replaceUe(static_cast<uint32_t>(ids->sps)) : r.copyUe());
        break;
    }
    default:
        *id = static_cast<int>(ids ? r.replaceUe(static_cast<uint32_t>(ids->pps)) : r.copyUe());
        if (ids) {
            r.replaceUe(static_cast<uint32_t>(ids->sps));
        }
        break;
    }
    if (r.failed()) {
        *id = -1;
        return {};
    }
    if (ids == nullptr) {
        return {};
    }
    r.copyRestAndRealign();
    return r.nal();
}

}  // namespace

bool HevcConfig::parse(const uint8_t* data, size_t size) {
    if (data == nullptr || size < 4) {
        return false;
    }
    return data[0] == 1 ? parseRecord(data, size) : parseAnnexB(data, size);
}

std::vector<std::vector<uint8_t>>* HevcConfig::setsOf(int type) {
    return type == kVps ? &mVps : type == kSps ? &mSps : type == kPps ? &mPps : nullptr;
}

const std::vector<std::vector<uint8_t>>* HevcConfig::setsOf(int type) const {
    return const_cast<HevcConfig*>(this)->setsOf(type);
}

bool HevcConfig::parseRecord(const uint8_t* data, size_t size) {
    if (size < kGeneralBytes + 1) {
        return false;
    }
    mGeneral.assign(data, data + kGeneralBytes);
    mLengthSize = (data[21] & 3) + 1;
    size_t pos = kGeneralBytes;
    const int arrays = data[pos++];
    for (int a = 0; a < arrays; ++a) {
        if (pos + 3 > size) {
            return false;
        }
        const int type = data[pos] & 0x3F;
        const size_t count = (static_cast<size_t>(data[pos + 1]) << 8) | data[pos + 2];
        pos += 3;
        for (size_t n = 0; n < count; ++n) {
            if (pos + 2 > size) {
                return false;
            }
            const size_t len = (static_cast<size_t>(data[pos]) << 8) | data[pos + 1];
            pos += 2;
            if (len < 2 || pos + len > size) {
                return false;
            }
            // Other arrays (SEI) are left out of the output's record.
            if (auto* sets = setsOf(type)) {
                sets->emplace_back(data + pos, data + pos + len);
            }
            pos += len;
        }
    }
    return !mVps.empty() && !mSps.empty() && !mPps.empty() && mLengthSize != 3;
}

bool HevcConfig::parseAnnexB(const uint8_t* data, size_t size) {
    nalunits::forEachNal(data, size, [&](const uint8_t* nal, size_t len) {
        if (len < 3) {
            return;
        }
        if (auto* sets = setsOf(nalType(nal))) {
            sets->emplace_back(nal, nal + len);
        }
    });
    if (mVps.empty() || mSps.empty() || mPps.empty()) {
        return false;
    }
    // The general fields of a record as the first SPS gives them; only the
    // input's record is ever written, so its own fields are what count.
    mGeneral.assign(kGeneralBytes, 0);
    mGeneral[0] = 1;
    mGeneral[21] = 0x0F;
    return true;
}

std::vector<int> HevcConfig::ids(int type) const {
    std::vector<int> out;
    if (const auto* sets = setsOf(type)) {
        for (const auto& nal : *sets) {
            int id = -1;
            editParameterSet(nal, nullptr, &id);
            out.push_back(id);
        }
    }
    return out;
}

bool HevcConfig::renumbered(const Ids& ids, HevcConfig* out) const {
    *out = *this;
    for (int type : {kVps, kSps, kPps}) {
        for (auto& nal : *out->setsOf(type)) {
            int id = -1;
            nal = editParameterSet(nal, &ids, &id);
            if (id < 0 || nal.empty()) {
                return false;
            }
        }
    }
    return true;
}

std::vector<uint8_t> HevcConfig::mergedWith(const HevcConfig& other) const {
    std::vector<uint8_t> out = mGeneral;
    out.push_back(3);
    for (int type : {kVps, kSps, kPps}) {
        const auto& mine = *setsOf(type);
        const auto& theirs = *other.setsOf(type);
        // Complete: no parameter set of this kind comes in the packets.
        out.push_back(static_cast<uint8_t>(0x80 | type));
        nalunits::putLength(&out, mine.size() + theirs.size(), 2);
        for (const auto* sets : {&mine, &theirs}) {
            for (const auto& nal : *sets) {
                nalunits::putLength(&out, nal.size(), 2);
                out.insert(out.end(), nal.begin(), nal.end());
            }
        }
    }
    return out;
}

int HevcConfig::firstSliceType(const uint8_t* data, size_t size, int nalLengthSize) {
    int type = -1;
    nalunits::forEachLengthPrefixedNal(data, size, nalLengthSize, [&type](const uint8_t* nal) {
        type = nalType(nal) <= kLastSlice ? nalType(nal) : -1;
        return type < 0;
    });
    return type;
}

bool HevcConfig::craToBla(uint8_t* data, size_t size, int nalLengthSize) {
    return nalunits::forEachLengthPrefixedNal(data, size, nalLengthSize, [](uint8_t* nal) {
        if (nalType(nal) == kCra) {
            nal[0] = static_cast<uint8_t>((nal[0] & 0x81) | (kBlaWithLeading << 1));
        }
        return true;
    });
}

bool HevcConfig::annexBToLengthPrefixed(const uint8_t* data, size_t size, int nalLengthSize, int ppsId,
                                        std::vector<uint8_t>* out) {
    out->clear();
    bool ok = true;
    nalunits::forEachNal(data, size, [&](const uint8_t* nal, size_t len) {
        const int type = len >= 2 ? nalType(nal) : -1;
        if (type < 0 || type == kVps || type == kSps || type == kPps) {
            return;
        }
        if (type > kLastSlice) {
            nalunits::putLength(out, len, nalLengthSize);
            out->insert(out->end(), nal, nal + len);
            return;
        }
        // first_slice_segment_in_pic_flag, no_output_of_prior_pics_flag in
        // IRAP pictures, then slice_pic_parameter_set_id.
        RbspEditor r(nal, len, 2);
        r.copyBits(type >= kFirstIrap && type <= kLastIrap ? 2 : 1);
        const int64_t old = r.replaceUe(static_cast<uint32_t>(ppsId));
        r.copyRest();
        std::vector<uint8_t> edited = r.nal();
        if (old != 0 || edited.empty() || (r.bitsWritten() - r.bitsRead()) % 8 != 0) {
            ok = false;
            return;
        }
        nalunits::putLength(out, edited.size(), nalLengthSize);
        out->insert(out->end(), edited.begin(), edited.end());
    });
    return ok;
}
