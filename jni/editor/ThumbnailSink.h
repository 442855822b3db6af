#pragma once

// Receives the thumbnails of a strip one by one, on the thread that runs
// the strip, while the thumbnail's pixels stand in the destination array.
class ThumbnailSink {
public:
    virtual ~ThumbnailSink() = default;
    // Thumbnail `index` (0-based) now stands in the destination; it shows
    // the frame presented at `ptsMs`. Returning false ends the strip.
    virtual bool onThumbnail(int index, int ptsMs) = 0;
};
