// The key-value description handed to and received from a media codec.

#include <gtest/gtest.h>

#include <cstring>

#include "Platform/MediaFormat.h"

namespace {

TEST(MediaFormat, KeepsEachKindAndReplacesOnSetAgain) {
    MediaFormat f;
    f.setString(MediaFormat::KEY_MIME, "video/avc");
    f.setInt32(MediaFormat::KEY_WIDTH, 320);
    const uint8_t csd[] = {0, 0, 0, 1, 0x67};
    f.setBuffer(MediaFormat::KEY_CSD_0, csd, sizeof(csd));

    const char* mime = nullptr;
    ASSERT_TRUE(f.getString("mime", &mime));
    EXPECT_STREQ(mime, "video/avc");
    int32_t width = 0;
    ASSERT_TRUE(f.getInt32("width", &width));
    EXPECT_EQ(width, 320);
    const void* data = nullptr;
    size_t size = 0;
    ASSERT_TRUE(f.getBuffer("csd-0", &data, &size));
    ASSERT_EQ(size, sizeof(csd));
    EXPECT_EQ(memcmp(data, csd, size), 0);

    // Absent keys and keys of another kind are not found.
    EXPECT_FALSE(f.getInt32("height", &width));
    EXPECT_FALSE(f.getInt32("mime", &width));
    EXPECT_FALSE(f.getString("width", &mime));
    EXPECT_EQ(width, 320) << "a failed get leaves the output alone";

    f.setInt32(MediaFormat::KEY_WIDTH, 640);
    f.setInt32(MediaFormat::KEY_MIME, 7);
    ASSERT_TRUE(f.getInt32("width", &width));
    EXPECT_EQ(width, 640);
    EXPECT_FALSE(f.getString("mime", &mime)) << "the key now holds a number";
    EXPECT_STREQ(f.toString(), "mime: int32(7), width: int32(640), csd-0: data(5 bytes)");
}

}  // namespace
