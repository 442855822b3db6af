#include "trimmer/AvcConfig.h"

#include "trimmer/NalUnits.h"
#include "trimmer/RbspEditor.h"

namespace {

constexpr int kNalSps = 7;
constexpr int kNalPps = 8;
constexpr int kNalIdr = 5;
constexpr int kNalSlice = 1;

}  // namespace

bool AvcConfig::parse(const uint8_t* data, size_t size) {
    if (data == nullptr || size < 4) {
        return false;
    }
    return data[0] == 1 ? parseRecord(data, size) : parseAnnexB(data, size);
}

bool AvcConfig::parseRecord(const uint8_t* data, size_t size) {
    if (size < 7) {
        return false;
    }
    mProfile = data[1];
    mCompatibility = data[2];
    mLevel = data[3];
    mLengthSize = (data[4] & 3) + 1;
    size_t pos = 5;
    auto readSets = [&](size_t count, std::vector<std::vector<uint8_t>>* sets) {
        for (size_t n = 0; n < count; ++n) {
            if (pos + 2 > size) {
                return false;
            }
            size_t len = (static_cast<size_t>(data[pos]) << 8) | data[pos + 1];
            pos += 2;
            if (len == 0 || pos + len > size) {
                return false;
            }
            sets->emplace_back(data + pos, data + pos + len);
            pos += len;
        }
        return true;
    };
    if (!readSets(data[pos++] & 0x1F, &mSps) || pos >= size || !readSets(data[pos++], &mPps)) {
        return false;
    }
    mExtension.assign(data + pos, data + size);
    return !mSps.empty() && !mPps.empty() && mLengthSize != 3;
}

bool AvcConfig::parseAnnexB(const uint8_t* data, size_t size) {
    nalunits::forEachNal(data, size, [&](const uint8_t* nal, size_t len) {
        if (len < 2) {
            return;
        }
        int type = nal[0] & 0x1F;
        if (type == kNalSps) {
            mSps.emplace_back(nal, nal + len);
        } else if (type == kNalPps) {
            mPps.emplace_back(nal, nal + len);
        }
    });
    if (mSps.empty() || mPps.empty() || mSps[0].size() < 4) {
        return false;
    }
    mProfile = mSps[0][1];
    mCompatibility = mSps[0][2];
    mLevel = mSps[0][3];
    return true;
}

std::vector<int> AvcConfig::spsIds() const {
    std::vector<int> ids;
    for (const auto& s : mSps) {
        // After the NAL header: profile_idc, the constraint flags, level_idc.
        RbspEditor r(s.data(), s.size(), 1);
        r.copyBits(24);
        ids.push_back(static_cast<int>(r.copyUe()));
    }
    return ids;
}

std::vector<int> AvcConfig::ppsIds() const {
    std::vector<int> ids;
    for (const auto& p : mPps) {
        RbspEditor r(p.data(), p.size(), 1);
        ids.push_back(static_cast<int>(r.copyUe()));
    }
    return ids;
}

std::vector<uint8_t> AvcConfig::mergedWith(const AvcConfig& other) const {
    std::vector<uint8_t> out = {1, mProfile, mCompatibility, mLevel, static_cast<uint8_t>(0xFC | (mLengthSize - 1))};
    out.push_back(static_cast<uint8_t>(0xE0 | (mSps.size() + other.mSps.size())));
    for (const auto* sets : {&mSps, &other.mSps}) {
        for (const auto& s : *sets) {
            nalunits::putLength(&out, s.size(), 2);
            out.insert(out.end(), s.begin(), s.end());
        }
    }
    out.push_back(static_cast<uint8_t>(mPps.size() + other.mPps.size()));
    for (const auto* sets : {&mPps, &other.mPps}) {
        for (const auto& p : *sets) {
            nalunits::putLength(&out, p.size(), 2);
            out.insert(out.end(), p.begin(), p.end());
        }
    }
    out.insert(out.end(), mExtension.begin(), mExtension.end());
    return out;
}

bool AvcConfig::hasIdrSlice(const uint8_t* data, size_t size, int nalLengthSize) {
    bool idr = false;
    nalunits::forEachLengthPrefixedNal(data, size, nalLengthSize, [&idr](const uint8_t* nal) {
        idr = (nal[0] & 0x1F) == kNalIdr;
        return !idr;
    });
    return idr;
}

bool AvcConfig::hasOnlyNonReferenceSlices(const uint8_t* data, size_t size, int nalLengthSize) {
    int slices = 0;
    bool reference = false;
    const bool framed = nalunits::forEachLengthPrefixedNal(data, size, nalLengthSize, [&](const uint8_t* nal) {
        const int type = nal[0] & 0x1F;
        if (type == kNalSlice || type == kNalIdr) {
            ++slices;
            reference = (nal[0] & 0x60) != 0;
        }
        return !reference;
    });
    return framed && slices > 0 && !reference;
}

void AvcConfig::annexBToLengthPrefixed(const uint8_t* data, size_t size, int nalLengthSize,
                                       std::vector<uint8_t>* out) {
    out->clear();
    nalunits::forEachNal(data, size, [&](const uint8_t* nal, size_t len) {
        int type = len > 0 ? nal[0] & 0x1F : 0;
        if (len == 0 || type == kNalSps || type == kNalPps) {
            return;
        }
        nalunits::putLength(out, len, nalLengthSize);
        out->insert(out->end(), nal, nal + len);
    });
}
