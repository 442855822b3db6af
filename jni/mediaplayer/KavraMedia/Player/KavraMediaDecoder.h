#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

#include "Common/FrameBufferQueue.h"
#include "Common/NativeCondition.h"
#include "Common/NativeMutex.h"
#include "Decoder/Decoder.h"
#include "Player/DecodeFloor.h"
#include "Source/FFmpegMediaExtractor.h"
#include "Source/MediaInfo.h"

extern "C" {
#include <libavcodec/packet.h>
}

// The demultiplexing half of the player: owns the media extractor and the
// video and audio decoders, and runs the demux thread that reads packets
// and feeds them to the decoders' input queues. Seeks are carried out on
// the demux thread at the request of other threads. Decoded frames leave
// through each decoder's output queue. Log tag "KavraMediaDecoder".
//
// Order of use: setDataSource, prepare, selectVideoStream and/or
// selectAudioStream, start, any number of seekTo, stop, release. Once
// stopped, the pipeline cannot be started again.
class KavraMediaDecoder {
public:
    KavraMediaDecoder();
    // Releases whatever release() has not freed yet.
    virtual ~KavraMediaDecoder();
    KavraMediaDecoder(const KavraMediaDecoder&) = delete;
    KavraMediaDecoder& operator=(const KavraMediaDecoder&) = delete;

    // Opens the file; the extractor's result.
    int setDataSource(const char* path);
    // Probes the streams and picks the best video and audio stream; the
    // probe's result.
    int prepare();
    // Creates the video decoder for the current video stream: the hardware
    // decoder for "h264", the software decoder otherwise. An earlier video
    // decoder is freed first. The argument is not used.
    int selectVideoStream(int index);
    // Creates a software audio decoder for the current audio stream, freeing
    // an earlier one first (and starting the new one when the pipeline
    // runs). The argument is not used.
    int selectAudioStream(int index);
    // Switches to audio track `track` by re-creating the audio decoder on
    // that stream. Requires an audio decoder. A consumer of the audio output
    // queue must not hold a slot meanwhile.
    int selectAudioTrack(int track);
    // Starts the decoders and the demux thread. Returns 0.
    int start();
    // Hands a seek to the demux thread and waits for it, 500 ms per wait.
    // When a wait runs out with no progress meanwhile (no flush finished,
    // no I/O done), gives the seek up and interrupts the extractor for
    // good; a seek that progresses is waited for up to 10 s in all. Returns within about 500 ms even when the demux thread is
    // stuck in a decoder flush. A later request replaces one still pending.
    // -1 returns at once.
    void seekTo(int ms);
    // While a seek decodes forward to `ms` (absolute, the stream's clock),
    // video packets that need not be decoded to show the picture there are
    // dropped before the decoder; -1 decodes everything again.
    void setDecodeFloor(int ms) { mDecodeFloor.set(ms); }
    // Stops and joins the demux thread, then stops the decoders. Returns 0
    // promptly even with full queues.
    int stop();
    void flush();
    // Stops the pipeline if needed and frees decoders and extractor.
    // Harmless when repeated. Returns 0.
    int release();

    // The decoders (null until selected). Owned here.
    Decoder* getVideoDecoder();
    Decoder* getAudioDecoder();
    FrameBufferQueue* getVideoOutputQueue();
    FrameBufferQueue* getAudioOutputQueue();
    // Reading stopped at damage in the file rather than at its end.
    bool isInputDamaged();
    // A copy that shares the extractor's stream records.
    MediaInfo getMediaInfo();
    int getCurrentVideoStreamIndex() const { return mVideoStreamIndex.load(); }
    int getCurrentAudioStreamIndex() const { return mAudioStreamIndex.load(); }
    // The later start time of the selected streams, a missing one counting
    // as 0.
    int getStreamStartTime();

    // Puts a packet (null: end of stream) into the decoder of `streamIndex`,
    // retrying every 5 ms while its queue is full, and carrying out a
    // pending seek instead. 0 queued, -1 not queued (the caller still owns
    // the packet).
    int queueToDecoder(AVPacket* pkt, int streamIndex);
    // The demux loop's parking step: after the end of input, waits for a
    // seek or stop. True unless stop was requested.
    bool isMuxPacket();

protected:
    // Decoder makers; a subclass may supply others.
    virtual std::unique_ptr<Decoder> newVideoDecoder(const char* codecName);
    virtual std::unique_ptr<Decoder> newAudioDecoder();

private:
    void onMuxPacket();
    // Waits under mLock until a seek or stop is requested.
    void park();
    // Carries out a pending seek on the demux thread. The flushes and the
    // reposition run without mLock, so that a requester's timed wait can
    // always run out; the request's serial tells whether the seek finished
    // is still the one asked for.
    void performSeek();
    // After a read that gave nothing (a transient error): a short wait that
    // a seek or stop cuts short, then a pending seek.
    void backOff();
    // Sends end of stream to both decoders; true when the demux thread may
    // park.
    bool queueEndOfStream();
    bool hasDecoder(bool video);
    // Stops (if it runs), releases and frees a decoder.
    void freeDecoder(std::unique_ptr<Decoder>& decoder);
    void interruptExtractor();

    std::atomic<int> mVideoStreamIndex;
    std::atomic<int> mAudioStreamIndex;
    std::unique_ptr<FFmpegMediaExtractor> mExtractor;
    // Guarded by mDecoderLock once the demux thread runs.
    std::unique_ptr<Decoder> mVideoDecoder;
    std::unique_ptr<Decoder> mAudioDecoder;
    std::thread mMuxThread;
    bool mThreadStarted;
    // start() ran: decoders made later are started too.
    std::atomic<bool> mStarted;
    std::atomic<bool> mStopRequest;
    std::atomic<bool> mMuxEnd;
    std::atomic<int> mSeekTime;
    // Numbers the seek requests; changed under mLock. A seek finished on
    // the demux thread completes the request only if no other request (or
    // a time-out) came in meanwhile.
    uint32_t mSeekSerial;
    // Counts seeks carried out, so an end-of-stream hand-over that a seek
    // cut short can be told from a decoder that refused it.
    std::atomic<uint32_t> mSeekCount;
    // Steps of a seek completed on the demux thread (each decoder flush);
    // with the extractor's I/O progress it tells a seek that is slow from
    // one that is stuck.
    std::atomic<uint64_t> mSeekSteps;
    DecodeFloor mDecodeFloor;
    // The extractor's I/O was interrupted: an empty read is the end.
    std::atomic<bool> mInterrupted;
    // Guards the seek hand-over and the parking; taken before mDecoderLock.
    NativeMutex mLock;
    NativeCondition mCond;
    // Guards the decoder pointers against the demux thread while they are
    // replaced.
    NativeMutex mDecoderLock;
};
