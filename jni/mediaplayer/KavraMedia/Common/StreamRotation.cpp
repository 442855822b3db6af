#include "StreamRotation.h"

#include <cmath>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavutil/display.h>
}

int StreamRotation::read(const AVStream* stream) {
    if (stream == nullptr) {
        return 0;
    }
    const AVDictionaryEntry* entry = av_dict_get(stream->metadata, "rotate", nullptr, 0);
    if (entry != nullptr) {
        return entry->value != nullptr ? atoi(entry->value) : 0;
    }
    return fromDisplayMatrix(stream);
}

int StreamRotation::fromDisplayMatrix(const AVStream* stream) {
    size_t size = 0;
    const uint8_t* matrix = av_stream_get_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, &size);
    if (matrix == nullptr || size < 9 * sizeof(int32_t)) {
        return 0;
    }
    double counterClockwise = av_display_rotation_get(reinterpret_cast<const int32_t*>(matrix));
    if (std::isnan(counterClockwise)) {
        return 0;
    }
    int degrees = static_cast<int>(std::lround(-counterClockwise)) % 360;
    return degrees < 0 ? degrees + 360 : degrees;
}

int StreamRotation::write(AVStream* stream, int degrees) {
    uint8_t* data = av_stream_new_side_data(stream, AV_PKT_DATA_DISPLAYMATRIX, 9 * sizeof(int32_t));
    if (data == nullptr) {
        return AVERROR(ENOMEM);
    }
    // The setter takes the clockwise angle (the getter answers the
    // counter-clockwise one, hence the negation in fromDisplayMatrix).
    av_display_rotation_set(reinterpret_cast<int32_t*>(data), static_cast<double>(degrees));
    char text[16];
    snprintf(text, sizeof(text), "%d", degrees);
    return av_dict_set(&stream->metadata, "rotate", text, 0);
}
