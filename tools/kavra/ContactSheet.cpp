#include "ContactSheet.h"

#include <cstdio>
#include <cstring>

namespace tool {
namespace {

// Sheet colours as bytes R, G, B, A.
constexpr uint8_t kBackground[4] = {0x20, 0x20, 0x20, 0xFF};
constexpr uint8_t kInk[4] = {0xE0, 0xE0, 0xE0, 0xFF};

// A 3 x 5 dot font for the characters of a time label; each row is three
// bits, the highest bit leftmost.
struct Glyph {
    char c;
    uint8_t rows[5];
};
constexpr Glyph kGlyphs[] = {
    {'0', {7, 5, 5, 5, 7}}, {'1', {2, 6, 2, 2, 7}}, {'2', {7, 1, 7, 4, 7}}, {'3', {7, 1, 7, 1, 7}},
    {'4', {5, 5, 7, 1, 1}}, {'5', {7, 4, 7, 1, 7}}, {'6', {7, 4, 7, 5, 7}}, {'7', {7, 1, 1, 1, 1}},
    {'8', {7, 5, 7, 5, 7}}, {'9', {7, 5, 7, 1, 7}}, {':', {0, 2, 0, 2, 0}}, {'.', {0, 0, 0, 0, 2}},
};

const Glyph* glyphFor(char c) {
    for (const Glyph& g : kGlyphs) {
        if (g.c == c) {
            return &g;
        }
    }
    return nullptr;
}

}  // namespace

ContactSheet::ContactSheet(const ContactSheetLayout& layout)
    : mLayout(layout), mPixels(static_cast<size_t>(layout.width) * layout.height * 4) {
    for (size_t i = 0; i < mPixels.size(); i += 4) {
        memcpy(&mPixels[i], kBackground, 4);
    }
}

void ContactSheet::place(int index, const uint8_t* rgba, const std::string& label) {
    if (index < 0 || index >= mLayout.count) {
        return;
    }
    const int x0 = mLayout.x(index);
    const int y0 = mLayout.y(index);
    const size_t rowBytes = static_cast<size_t>(mLayout.thumbWidth) * 4;
    for (int y = 0; y < mLayout.thumbHeight; ++y) {
        memcpy(&mPixels[(static_cast<size_t>(y0 + y) * mLayout.width + x0) * 4], rgba + y * rowBytes, rowBytes);
    }
    if (mLayout.labelScale > 0) {
        drawText(x0, y0 + mLayout.thumbHeight + mLayout.labelScale, label);
    }
}

void ContactSheet::drawText(int x, int y, const std::string& text) {
    const int s = mLayout.labelScale;
    const int right = x + mLayout.thumbWidth;
    for (char c : text) {
        const Glyph* g = glyphFor(c);
        if (x + 3 * s > right) {
            return;  // what does not fit is left out
        }
        if (g != nullptr) {
            for (int row = 0; row < 5; ++row) {
                for (int col = 0; col < 3; ++col) {
                    if (g->rows[row] & (4 >> col)) {
                        fillInk(x + col * s, y + row * s, s, s);
                    }
                }
            }
        }
        x += 4 * s;
    }
}

void ContactSheet::fillInk(int x, int y, int w, int h) {
    for (int yy = y; yy < y + h && yy < mLayout.height; ++yy) {
        for (int xx = x; xx < x + w && xx < mLayout.width; ++xx) {
            memcpy(&mPixels[(static_cast<size_t>(yy) * mLayout.width + xx) * 4], kInk, 4);
        }
    }
}

std::string ContactSheet::timeLabel(long long ms) {
    if (ms < 0) {
        ms = 0;
    }
    char text[32];
    long long seconds = ms / 1000;
    if (seconds >= 3600) {
        snprintf(text, sizeof(text), "%lld:%02lld:%02lld.%03lld", seconds / 3600, seconds / 60 % 60, seconds % 60,
                 ms % 1000);
    } else {
        snprintf(text, sizeof(text), "%02lld:%02lld.%03lld", seconds / 60, seconds % 60, ms % 1000);
    }
    return text;
}

}  // namespace tool
