#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace tool {

// Where the thumbnails of a contact sheet go: a grid of about square
// shape, `kGap` pixels between thumbnails and around them, and under each
// thumbnail a strip for its time label.
struct ContactSheetLayout {
    static constexpr int kGap = 4;

    int count = 0;
    int thumbWidth = 0;
    int thumbHeight = 0;
    int columns = 0;
    int rows = 0;
    int labelScale = 0;   // pixels per font dot; 0: no labels (too narrow)
    int labelHeight = 0;  // the strip under each thumbnail
    int width = 0;        // the whole sheet
    int height = 0;

    static ContactSheetLayout make(int count, int thumbWidth, int thumbHeight) {
        ContactSheetLayout l;
        l.count = count;
        l.thumbWidth = thumbWidth;
        l.thumbHeight = thumbHeight;
        l.columns = 1;
        while (l.columns * l.columns < count) {
            ++l.columns;
        }
        l.rows = (count + l.columns - 1) / l.columns;
        // "00:00.000" is 9 glyphs of 4 dots; labels grow with the thumbnail.
        l.labelScale = thumbWidth / 80 > 0 ? thumbWidth / 80 : (thumbWidth >= 36 ? 1 : 0);
        l.labelHeight = l.labelScale * 7;
        l.width = l.columns * thumbWidth + (l.columns + 1) * kGap;
        l.height = l.rows * (thumbHeight + l.labelHeight) + (l.rows + 1) * kGap;
        return l;
    }
    // Top-left corner of thumbnail i.
    int x(int i) const { return kGap + (i % columns) * (thumbWidth + kGap); }
    int y(int i) const { return kGap + (i / columns) * (thumbHeight + labelHeight + kGap); }
};

// An RGBA picture (bytes R, G, B, A) holding the thumbnails of a strip.
class ContactSheet {
public:
    explicit ContactSheet(const ContactSheetLayout& layout);

    // Copies thumbnail i (thumbWidth x thumbHeight RGBA pixels) into its
    // cell and writes `label` under it.
    void place(int index, const uint8_t* rgba, const std::string& label);

    const ContactSheetLayout& layout() const { return mLayout; }
    const uint8_t* pixels() const { return mPixels.data(); }
    int strideBytes() const { return mLayout.width * 4; }

    // "mm:ss.mmm", or "h:mm:ss.mmm" from an hour on.
    static std::string timeLabel(long long ms);

private:
    void drawText(int x, int y, const std::string& text);
    // Paints a rectangle in the label colour.
    void fillInk(int x, int y, int w, int h);

    ContactSheetLayout mLayout;
    std::vector<uint8_t> mPixels;
};

}  // namespace tool
