#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace kavra::test {

// What the ffprobe tool reports for a file, as its "flat" output: keys such
// as "format.duration" or "streams.stream.0.codec_type" mapped to values
// with their quotes removed. Extra ffprobe arguments may add entries (e.g.
// "-count_frames" gives "streams.stream.N.nb_read_frames").
class Ffprobe {
public:
    explicit Ffprobe(const std::string& path, const std::string& extraArgs = "");

    bool ok() const { return mOk; }
    bool has(const std::string& key) const;
    std::string get(const std::string& key) const;
    // "N/A" and missing keys read as `fallback`.
    double number(const std::string& key, double fallback = 0) const;
    std::string stream(int index, const std::string& field) const;
    double streamNumber(int index, const std::string& field, double fallback = 0) const;
    int streamCount() const;

private:
    std::map<std::string, std::string> mValues;
    bool mOk;
};

// How many frames ffprobe decodes in one stream, chosen by a specifier such
// as "v:0", "a:0" or an index ("2"); 0 when it reports none.
int probeFrameCount(const std::string& path, const std::string& stream);

// A picture file (PNG, JPEG) decoded to RGBA by the ffmpeg tool at its own
// size; 0x0 when it cannot be read.
struct RgbaImage {
    int width = 0;
    int height = 0;
    std::string bytes;
    const uint8_t* at(int x, int y) const {
        return reinterpret_cast<const uint8_t*>(bytes.data()) + (static_cast<size_t>(y) * width + x) * 4;
    }
};
RgbaImage decodeImage(const std::string& path);

}  // namespace kavra::test
