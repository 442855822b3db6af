#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

// A set of named values describing a media stream to a codec, or what a
// codec produces: 32-bit integers, strings and byte buffers, looked up by
// key. Setting a key again replaces its value (and its kind).
class MediaFormat {
public:
    static const char* const KEY_MIME;            // string
    static const char* const KEY_WIDTH;           // int32
    static const char* const KEY_HEIGHT;          // int32
    static const char* const KEY_FRAME_RATE;      // int32
    static const char* const KEY_COLOR_FORMAT;    // int32
    static const char* const KEY_MAX_INPUT_SIZE;  // int32
    static const char* const KEY_STRIDE;          // int32, bytes per luma row of an output buffer
    static const char* const KEY_SLICE_HEIGHT;    // int32, luma rows before the first chroma plane
    static const char* const KEY_CSD_0;           // buffer, codec-specific data
    static const char* const KEY_CSD_1;           // buffer, codec-specific data

    void setInt32(const char* name, int32_t value);
    void setString(const char* name, const char* value);
    void setBuffer(const char* name, const void* data, size_t size);

    // False when the key is absent or holds another kind of value.
    bool getInt32(const char* name, int32_t* out) const;
    // The string stays valid until the key is set again or the format dies.
    bool getString(const char* name, const char** out) const;
    // The bytes stay valid until the key is set again or the format dies.
    bool getBuffer(const char* name, const void** data, size_t* size) const;

    // "key: kind(value), ..." in the order the keys were first set; the text
    // stays valid until the next call or until the format dies.
    const char* toString();

private:
    enum class Kind { Int32, String, Buffer };
    struct Entry {
        std::string name;
        Kind kind;
        int32_t number;
        std::string text;
        std::vector<uint8_t> bytes;
    };
    Entry& entry(const char* name, Kind kind);
    const Entry* find(const char* name, Kind kind) const;

    std::vector<Entry> mEntries;
    std::string mText;
};
