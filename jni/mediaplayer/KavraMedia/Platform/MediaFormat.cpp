#include "Platform/MediaFormat.h"

#include <cstring>

const char* const MediaFormat::KEY_MIME = "mime";
const char* const MediaFormat::KEY_WIDTH = "width";
const char* const MediaFormat::KEY_HEIGHT = "height";
const char* const MediaFormat::KEY_FRAME_RATE = "frame-rate";
const char* const MediaFormat::KEY_COLOR_FORMAT = "color-format";
const char* const MediaFormat::KEY_MAX_INPUT_SIZE = "max-input-size";
const char* const MediaFormat::KEY_STRIDE = "stride";
const char* const MediaFormat::KEY_SLICE_HEIGHT = "slice-height";
const char* const MediaFormat::KEY_CSD_0 = "csd-0";
const char* const MediaFormat::KEY_CSD_1 = "csd-1";

MediaFormat::Entry& MediaFormat::entry(const char* name, Kind kind) {
    for (Entry& e : mEntries) {
        if (e.name == name) {
            e.kind = kind;
            return e;
        }
    }
    mEntries.push_back(Entry{name, kind, 0, std::string(), std::vector<uint8_t>()});
    return mEntries.back();
}

const MediaFormat::Entry* MediaFormat::find(const char* name, Kind kind) const {
    if (name == nullptr) {
        return nullptr;
    }
    for (const Entry& e : mEntries) {
        if (e.name == name) {
            return e.kind == kind ? &e : nullptr;
        }
    }
    return nullptr;
}

void MediaFormat::setInt32(const char* name, int32_t value) { entry(name, Kind::Int32).number = value; }

void MediaFormat::setString(const char* name, const char* value) {
    entry(name, Kind::String).text = value != nullptr ? value : "";
}

void MediaFormat::setBuffer(const char* name, const void* data, size_t size) {
    const uint8_t* bytes = static_cast<const uint8_t*>(data);
    std::vector<uint8_t>& stored = entry(name, Kind::Buffer).bytes;
    if (bytes == nullptr) {
        stored.clear();
    } else {
        stored.assign(bytes, bytes + size);
    }
}

bool MediaFormat::getInt32(const char* name, int32_t* out) const {
    const Entry* e = find(name, Kind::Int32);
    if (e == nullptr || out == nullptr) {
        return false;
    }
    *out = e->number;
    return true;
}

bool MediaFormat::getString(const char* name, const char** out) const {
    const Entry* e = find(name, Kind::String);
    if (e == nullptr || out == nullptr) {
        return false;
    }
    *out = e->text.c_str();
    return true;
}

bool MediaFormat::getBuffer(const char* name, const void** data, size_t* size) const {
    const Entry* e = find(name, Kind::Buffer);
    if (e == nullptr || data == nullptr || size == nullptr) {
        return false;
    }
    *data = e->bytes.data();
    *size = e->bytes.size();
    return true;
}

const char* MediaFormat::toString() {
    mText.clear();
    for (const Entry& e : mEntries) {
        if (!mText.empty()) {
            mText += ", ";
        }
        mText += e.name;
        switch (e.kind) {
        case Kind::Int32:
            mText += ": int32(" + std::to_string(e.number) + ")";
            break;
        case Kind::String:
            mText += ": string(" + e.text + ")";
            break;
        case Kind::Buffer:
            mText += ": data(" + std::to_string(e.bytes.size()) + " bytes)";
            break;
        }
    }
    return mText.c_str();
}
