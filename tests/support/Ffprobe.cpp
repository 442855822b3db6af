#include "support/Ffprobe.h"

#include <cstdlib>
#include <sstream>

#include "support/Process.h"

namespace kavra::test {

Ffprobe::Ffprobe(const std::string& path, const std::string& extraArgs) : mOk(false) {
    CommandResult r = runCommand("ffprobe -v error -show_format -show_streams " + extraArgs + " -of flat " +
                                 shellQuote(path) + " 2>/dev/null");
    mOk = r.status == 0;
    std::istringstream in(r.output);
    std::string line;
    while (std::getline(in, line)) {
        size_t eq = line.find('=');
        if (eq == std::string::npos) {
            continue;
        }
        std::string value = line.substr(eq + 1);
        if (value.size() >= 2 && value.front() == '"' && value.back() == '"') {
            value = value.substr(1, value.size() - 2);
        }
        mValues[line.substr(0, eq)] = value;
    }
}

bool Ffprobe::has(const std::string& key) const {
    auto it = mValues.find(key);
    return it != mValues.end() && it->second != "N/A";
}

std::string Ffprobe::get(const std::string& key) const {
    auto it = mValues.find(key);
    return it == mValues.end() ? std::string() : it->second;
}

double Ffprobe::number(const std::string& key, double fallback) const {
    return has(key) ? strtod(get(key).c_str(), nullptr) : fallback;
}

std::string Ffprobe::stream(int index, const std::string& field) const {
    return get("streams.stream." + std::to_string(index) + "." + field);
}

double Ffprobe::streamNumber(int index, const std::string& field, double fallback) const {
    return number("streams.stream." + std::to_string(index) + "." + field, fallback);
}

int Ffprobe::streamCount() const { return static_cast<int>(number("format.nb_streams", 0)); }

int probeFrameCount(const std::string& path, const std::string& stream) {
    return static_cast<int>(Ffprobe(path, "-count_frames -select_streams " + stream).streamNumber(0, "nb_read_frames"));
}

RgbaImage decodeImage(const std::string& path) {
    Ffprobe probe(path, "-select_streams v:0");
    RgbaImage image;
    const int width = static_cast<int>(probe.streamNumber(0, "width", 0));
    const int height = static_cast<int>(probe.streamNumber(0, "height", 0));
    CommandResult r = runCommand("ffmpeg -v error -nostdin -i " + shellQuote(path) + " -f rawvideo -pix_fmt rgba -");
    if (r.status == 0 && width > 0 && r.output.size() == static_cast<size_t>(width) * height * 4) {
        image = RgbaImage{width, height, std::move(r.output)};
    }
    return image;
}

}  // namespace kavra::test
