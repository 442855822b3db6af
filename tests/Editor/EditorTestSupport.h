#pragma once

// Shared by the editor tests: fixture timing, expected frames, a recording
// thumbnail sink and picture files read back.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "editor/VideoItem.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"
#include "support/FrameIndex.h"
#include "support/Process.h"
#include "support/ScratchDir.h"

namespace kavra::test {

// Every fixture runs at 30 fps with a key frame every 30 frames; frame n is
// presented at firstFrameMs + n x 1000 / 30.
constexpr int kFixtureFrames = 300;
constexpr int kGop = 30;

// Presentation time of the first video frame, as ffprobe reports it.
inline double firstFrameMs(const std::string& name) {
    Ffprobe probe(fixture(name), "-select_streams v:0");
    return probe.streamNumber(0, "start_time", 0.0) * 1000.0;
}

// The key frame at or before `targetMs` (frame 0 for earlier targets).
inline int keyFrameAtOrBefore(double targetMs, double firstMs) {
    double frames = (targetMs - firstMs) * 30.0 / 1000.0;
    if (frames < 0) {
        return 0;
    }
    int n = std::min(static_cast<int>(std::floor(frames + 1e-6)), kFixtureFrames - 1);
    return n / kGop * kGop;
}

// The first frame presented at or after `targetMs` (the last frame when
// the clip ends before it).
inline int frameAtOrAfter(double targetMs, double firstMs) {
    double frames = (targetMs - firstMs) * 30.0 / 1000.0;
    if (frames <= 0) {
        return 0;
    }
    return std::min(static_cast<int>(std::ceil(frames - 1e-6)), kFixtureFrames - 1);
}

// An opened item; fails the test when the fixture does not open.
inline std::unique_ptr<VideoItem> openItem(const std::string& name, bool singleThread = false) {
    auto item = std::make_unique<VideoItem>();
    EXPECT_EQ(item->setSource(fixture(name).c_str(), singleThread), 0) << name;
    return item;
}

// Records each thumbnail: its index, the frame time, and the frame index
// read from the pixels standing in the destination during the call.
class RecordingSink : public ThumbnailSink {
public:
    struct Call {
        int index;
        int ptsMs;
        int frame;
    };
    RecordingSink(const std::vector<int>* pixels, int width, int height, int rotation)
        : mPixels(pixels), mWidth(width), mHeight(height), mRotation(rotation) {}

    bool onThumbnail(int index, int ptsMs) override {
        int frame = frameIndexFromRgba(reinterpret_cast<const uint8_t*>(mPixels->data()), mWidth * 4, mWidth,
                                       mHeight, mRotation);
        std::lock_guard<std::mutex> lock(mMutex);
        mCalls.push_back(Call{index, ptsMs, frame});
        return true;
    }
    std::vector<Call> calls() const {
        std::lock_guard<std::mutex> lock(mMutex);
        return mCalls;
    }

private:
    const std::vector<int>* mPixels;
    int mWidth;
    int mHeight;
    int mRotation;
    mutable std::mutex mMutex;
    std::vector<Call> mCalls;
};

// Hands each thumbnail to a function.
class FunctionSink : public ThumbnailSink {
public:
    explicit FunctionSink(std::function<bool(int, int)> fn) : mFn(std::move(fn)) {}
    bool onThumbnail(int index, int ptsMs) override { return mFn(index, ptsMs); }

private:
    std::function<bool(int, int)> mFn;
};

using TempDir = ScratchDir;

// The frame index drawn into a picture file (JPEG, PNG), decoded by the
// ffmpeg tool at its own size; -1 when it cannot be read. Gives the size.
inline int frameIndexOfImage(const std::string& path, int* width, int* height) {
    Ffprobe probe(path, "-select_streams v:0");
    *width = static_cast<int>(probe.streamNumber(0, "width", 0));
    *height = static_cast<int>(probe.streamNumber(0, "height", 0));
    if (*width <= 0 || *height <= 0) {
        return -1;
    }
    CommandResult r = runCommand("ffmpeg -v error -nostdin -i " + shellQuote(path) + " -f rawvideo -pix_fmt gray -");
    if (r.status != 0 || r.output.size() != static_cast<size_t>(*width) * *height) {
        return -1;
    }
    return frameIndexFromLuma(reinterpret_cast<const uint8_t*>(r.output.data()), *width, *width, *height);
}

}  // namespace kavra::test
