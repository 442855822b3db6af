#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sys/types.h>

#include "Platform/MediaFormat.h"

// What a codec reports about one output buffer.
struct MediaCodecBufferInfo {
    int32_t offset;
    int32_t size;
    int64_t presentationTimeUs;
    uint32_t flags;
};

// The platform's media codec, driven through input and output buffer
// queues that the codec owns: dequeue a free input buffer, fill it and queue
// it; dequeue a filled output buffer, read it and release it. Waits take a
// time-out in microseconds (negative waits without limit, 0 never waits).
// The calls and codes mirror the platform's native codec interface one for
// one, so each platform provides this as a thin layer over its own.
//
// Life cycle: created (by MIME type) -> configure -> start -> buffers,
// flush (every buffer back to the codec, codec state cleared) -> stop (back
// to unconfigured) -> destroyed. An input buffer queued with
// BUFFER_FLAG_END_OF_STREAM makes the codec put out everything it holds and
// then an output buffer flagged BUFFER_FLAG_END_OF_STREAM; after that only a
// flush makes it accept input again.
class MediaCodec {
public:
    // Results of the dequeue operations besides a buffer index.
    static constexpr int INFO_TRY_AGAIN_LATER = -1;
    static constexpr int INFO_OUTPUT_FORMAT_CHANGED = -2;
    static constexpr int INFO_OUTPUT_BUFFERS_CHANGED = -3;

    // Buffer flags.
    static constexpr uint32_t BUFFER_FLAG_KEY_FRAME = 1;
    static constexpr uint32_t BUFFER_FLAG_CODEC_CONFIG = 2;
    static constexpr uint32_t BUFFER_FLAG_END_OF_STREAM = 4;

    // Planar YUV 4:2:0: the Y plane, then U, then V.
    static constexpr int32_t COLOR_FormatYUV420Planar = 19;

    // Status results of the other operations.
    static constexpr int OK = 0;
    static constexpr int ERROR_UNKNOWN = -10000;
    static constexpr int ERROR_MALFORMED = -10001;
    static constexpr int ERROR_UNSUPPORTED = -10002;
    static constexpr int ERROR_INVALID_OBJECT = -10003;
    static constexpr int ERROR_INVALID_PARAMETER = -10004;
    static constexpr int ERROR_INVALID_OPERATION = -10005;

    // A decoder for the MIME type ("video/avc"), or null when the platform
    // has none.
    static std::unique_ptr<MediaCodec> createDecoderByType(const char* mimeType);

    // Destroying the codec stops it first.
    virtual ~MediaCodec() = default;

    // `surface` and `crypto` may be null (byte-buffer output, clear input);
    // `flags` 0 for a decoder.
    virtual int configure(const MediaFormat* format, void* surface, void* crypto, uint32_t flags) = 0;
    virtual int start() = 0;
    virtual int stop() = 0;
    virtual int flush() = 0;

    // A free input buffer's index, INFO_TRY_AGAIN_LATER, or an error.
    virtual ssize_t dequeueInputBuffer(int64_t timeoutUs) = 0;
    // The buffer of an index handed out by dequeueInputBuffer, and its
    // capacity; null for any other index.
    virtual uint8_t* getInputBuffer(size_t index, size_t* outSize) = 0;
    // Gives the buffer to the codec: `size` bytes from `offset`, with the
    // presentation time (passed through to the output unchanged) and flags.
    virtual int queueInputBuffer(size_t index, off_t offset, size_t size, uint64_t time, uint32_t flags) = 0;

    // A filled output buffer's index (its facts in `info`),
    // INFO_TRY_AGAIN_LATER, INFO_OUTPUT_FORMAT_CHANGED,
    // INFO_OUTPUT_BUFFERS_CHANGED, or an error.
    virtual ssize_t dequeueOutputBuffer(MediaCodecBufferInfo* info, int64_t timeoutUs) = 0;
    virtual uint8_t* getOutputBuffer(size_t index, size_t* outSize) = 0;
    // The format of the output buffers, as last announced by
    // INFO_OUTPUT_FORMAT_CHANGED.
    virtual std::unique_ptr<MediaFormat> getOutputFormat() = 0;
    // Gives an output buffer back; `render` draws it to the configured
    // surface first (there is none in byte-buffer mode).
    virtual int releaseOutputBuffer(size_t index, bool render) = 0;
};
