// kavra thumbs FILE --count N [--from TIME] [--to TIME] [--size WxH] -o SHEET.png [--json]:
// a strip of N thumbnails at evenly spaced times, each the key frame at or
// before its time, laid out on one contact sheet with their times.

#include <cstdio>
#include <string>
#include <vector>

#include "Command.h"
#include "ContactSheet.h"
#include "EditorToolSupport.h"
#include "PngWriter.h"
#include "ToolSupport.h"
#include "editor/ThumbnailSink.h"
#include "editor/VideoItem.h"

namespace {

// Puts each thumbnail on the sheet as it arrives and keeps its time.
class SheetSink : public ThumbnailSink {
public:
    SheetSink(tool::ContactSheet& sheet, const std::vector<int>& pixels, tool::Progress& progress)
        : mSheet(sheet), mPixels(pixels), mProgress(progress), mPtsMs(sheet.layout().count, -1) {}

    bool onThumbnail(int index, int ptsMs) override {
        if (index < 0 || index >= static_cast<int>(mPtsMs.size())) {
            return false;
        }
        mPtsMs[index] = ptsMs;
        mSheet.place(index, reinterpret_cast<const uint8_t*>(mPixels.data()), tool::ContactSheet::timeLabel(ptsMs));
        mProgress.update((index + 1) * 100 / static_cast<int>(mPtsMs.size()));
        return true;
    }
    // -1 for thumbnails that never came (the strip ended early).
    const std::vector<int>& ptsMs() const { return mPtsMs; }

private:
    tool::ContactSheet& mSheet;
    const std::vector<int>& mPixels;
    tool::Progress& mProgress;
    std::vector<int> mPtsMs;
};

bool parseTimeOption(const tool::Arguments& a, const char* name, long long fallback, long long* out,
                     std::string* error) {
    if (!a.has(name)) {
        *out = fallback;
        return true;
    }
    if (!tool::parseTimeMs(a.get(name), out) || *out > 2147483647LL) {
        *error = std::string("bad time for ") + name + ": '" + a.get(name) + "'";
        return false;
    }
    return true;
}

int runThumbs(const std::vector<std::string>& args) {
    tool::Arguments a;
    std::string error;
    if (!tool::parseArguments(args, {"--count", "--from", "--to", "--size", "-o"}, {"--json"}, &a, &error)) {
        return tool::fail("thumbs", error);
    }
    if (a.positional.size() != 1) {
        return tool::fail("thumbs", "expected exactly one FILE");
    }
    if (!a.has("--count")) {
        return tool::fail("thumbs", "--count N is required");
    }
    if (!a.has("-o")) {
        return tool::fail("thumbs", "-o SHEET.png is required");
    }
    const std::string countText = a.get("--count");
    char* end = nullptr;
    long count = strtol(countText.c_str(), &end, 10);
    if (countText.empty() || *end != '\0' || count < 1 || count > 10000) {
        return tool::fail("thumbs", "--count must be a whole number from 1 to 10000, not '" + countText + "'");
    }
    const std::string& path = a.positional[0];
    const std::string output = a.get("-o");
    if (!tool::checkWritable(output, &error)) {
        return tool::fail(output, error);
    }
    int width = 0;
    int height = 0;
    if (a.has("--size") && !tool::parseSize(a.get("--size"), &width, &height)) {
        return tool::fail("thumbs", "bad --size '" + a.get("--size") + "' (expected WxH)");
    }

    VideoItem item;
    if (!tool::openVideoItem(path, item, &error)) {
        return tool::fail(path, error);
    }
    if (!a.has("--size")) {
        tool::defaultThumbnailSize(item.getWidth(), item.getHeight(), &width, &height);
    }
    // By default the strip spans the whole file in its own timeline.
    const long long start = item.getStartTime();
    long long from = 0;
    long long to = 0;
    if (!parseTimeOption(a, "--from", start, &from, &error) ||
        !parseTimeOption(a, "--to", start + item.getDuration(), &to, &error)) {
        return tool::fail("thumbs", error);
    }

    const int n = static_cast<int>(count);
    item.setItemParameters(static_cast<int>(from), static_cast<int>(to), n, width, height, true);
    tool::ContactSheet sheet(tool::ContactSheetLayout::make(n, width, height));
    std::vector<int> pixels(static_cast<size_t>(width) * height);
    int delivered = 0;
    std::vector<int> ptsMs;
    {
        tool::Progress progress("thumbs");
        SheetSink sink(sheet, pixels, progress);
        if (item.getThumbnailList(pixels.data(), static_cast<int>(pixels.size() * 4), sink) < 0) {
            return tool::fail(path, "the thumbnail strip could not run");
        }
        ptsMs = sink.ptsMs();
    }
    // A strip cut short by damage is not the strip that was asked for.
    if (item.isInputDamaged()) {
        return tool::failDamaged(path);
    }
    for (int pts : ptsMs) {
        delivered += pts >= 0 ? 1 : 0;
    }
    if (delivered == 0) {
        return tool::fail(path, "no picture could be decoded");
    }
    if (!tool::writePng(output, sheet.pixels(), sheet.layout().width, sheet.layout().height, sheet.strideBytes(),
                        &error)) {
        return tool::fail(output, error);
    }
    if (a.has("--json")) {
        const long long interval = n == 1 ? 0 : (to - from) / (n - 1);
        tool::Json j;
        j.beginObject();
        j.beginArray("thumbnails");
        for (int i = 0; i < n; ++i) {
            if (ptsMs[i] < 0) {
                continue;
            }
            j.beginObject();
            j.field("index", i);
            j.field("target_ms", from + i * interval);
            j.field("pts_ms", ptsMs[i]);
            j.endObject();
        }
        j.endArray();
        j.endObject();
        printf("%s\n", j.str().c_str());
    }
    return 0;
}

}  // namespace

KAVRA_COMMAND("thumbs", "FILE --count N [--from TIME] [--to TIME] [--size WxH] -o SHEET.png [--json]",
              "write a contact sheet of N key-frame thumbnails evenly spread over a time range", runThumbs);
