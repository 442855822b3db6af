#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
#include <libavutil/frame.h>
}

// Plane pointers and line sizes of one picture, in FFmpeg's layout. An
// AVFrame begins with exactly these two arrays, so a frame's address may be
// read as a Picture (the hardware decoder and the renderers rely on it).
struct Picture {
    uint8_t* data[AV_NUM_DATA_POINTERS];
    int linesize[AV_NUM_DATA_POINTERS];
};
static_assert(offsetof(AVFrame, data) == offsetof(Picture, data), "AVFrame must start with its planes");
static_assert(offsetof(AVFrame, linesize) == offsetof(Picture, linesize), "AVFrame line sizes must follow its planes");

// Payload kinds of a frame buffer.
enum FrameBufferType {
    FRAME_BUFFER_NONE = 0,     // a slot whose payload allocation failed
    FRAME_BUFFER_FRAME = 1,    // an AVFrame, moved in by reference
    FRAME_BUFFER_PICTURE = 2,  // picture planes, copied in
    FRAME_BUFFER_BYTES = 3,    // plain bytes, copied in
};

// One decoded frame: a slot of a FrameBufferQueue, or the staging record a
// producer hands to it. A record whose `size` is 0 is the end-of-stream
// marker. Times are milliseconds.
//
// A slot is written on the decoding thread and read on the rendering thread
// for every frame. Aligned to a cache line, its handles (type, data, frame)
// share no line with the figures that change per frame (from durationMs
// on), so that only those travel between the two cores.
struct alignas(64) FrameBuffer {
    int type;
    // Type 1: the AVFrame; type 2: &picture; type 3: the byte buffer.
    void* data;
    AVFrame* frame;
    Picture picture;
    uint8_t* bytes;
    int durationMs;
    int ptsMs;
    // The frame's time plus its duration, rounded up to the millisecond
    // from the exact stream ticks: a time t (whole ms) lies within the
    // frame's span exactly when t < endMs, where ptsMs and durationMs, both
    // truncated, cannot tell a frame that starts exactly at t from one that
    // starts a fraction later. 0 when unknown.
    int endMs;
    int size;
    int format;
    int width;
    int height;
    int sampleRate;
    int channels;
    int nbSamples;
    // 1 when the queue allocated the payload and frees it on release().
    int owned;
};

static_assert(offsetof(FrameBuffer, durationMs) % 64 == 0, "per-frame figures start a cache line");

// The picture a frame buffer's data points at (types 1 and 2).
inline const Picture* pictureOf(const FrameBuffer* buffer) {
    return static_cast<const Picture*>(buffer->data);
}
