// The demux pipeline on real media with the real decoders: every packet to
// its decoder, end of stream, seeks (after the end and against a blocked
// read), prompt stops, stream choice and audio track switching.

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Decoder/DecoderTestSupport.h"
#include "Decoder/FFmpegDecoder.h"
#include "Decoder/MediaCodecVideoDecoder.h"
#include "Player/KavraMediaDecoder.h"
#include "support/Ffprobe.h"
#include "support/Fixtures.h"
#include "support/LogCapture.h"
#include "support/Process.h"
#include "support/ScratchDir.h"

namespace kavra::test {
namespace {

using Clock = std::chrono::steady_clock;
const char* const kTag = "KavraMediaDecoder";
constexpr int kWaitMs = 60000;

long msSince(Clock::time_point start) {
    return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
}

// Drains one decoder output queue on its own thread, as a render thread
// does, and records what came out.
std::unique_ptr<OutputCollector> drain(FrameBufferQueue* queue) {
    auto collector = std::make_unique<OutputCollector>(queue);
    collector->start();
    return collector;
}

// Opens, probes, selects the best streams and starts a pipeline.
void open(KavraMediaDecoder& decoder, const std::string& path, bool start = true) {
    ASSERT_EQ(decoder.setDataSource(path.c_str()), 0);
    ASSERT_EQ(decoder.prepare(), 0);
    if (decoder.getCurrentVideoStreamIndex() >= 0) {
        ASSERT_EQ(decoder.selectVideoStream(0), 0);
    }
    if (decoder.getCurrentAudioStreamIndex() >= 0) {
        ASSERT_EQ(decoder.selectAudioStream(0), 0);
    }
    if (start) {
        ASSERT_EQ(decoder.start(), 0);
    }
}

double cpuSeconds() {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

struct MediaCase {
    const char* file;
    bool video;
    bool audio;
};

class KavraMediaDecoderMedia : public ::testing::TestWithParam<MediaCase> {};

TEST_P(KavraMediaDecoderMedia, DemuxesEveryPacketToItsDecoderAndEndsBothStreams) {
    const MediaCase& c = GetParam();
    const std::string path = fixture(c.file);
    LogCapture log;
    KavraMediaDecoder decoder;
    open(decoder, path, false);
    ASSERT_EQ(decoder.getVideoOutputQueue() != nullptr, c.video);
    ASSERT_EQ(decoder.getAudioOutputQueue() != nullptr, c.audio);
    std::unique_ptr<OutputCollector> video;
    std::unique_ptr<OutputCollector> audio;
    if (c.video) {
        video = drain(decoder.getVideoOutputQueue());
    }
    if (c.audio) {
        audio = drain(decoder.getAudioOutputQueue());
    }
    ASSERT_EQ(decoder.start(), 0);

    if (c.video) {
        ASSERT_TRUE(video->waitForEnd(kWaitMs, 1)) << "no video end of stream";
        std::vector<DecodedFrame> frames = video->frames();
        EXPECT_EQ(static_cast<int>(frames.size()), probeFrameCount(path, "v"));
        for (size_t i = 0; i < frames.size(); ++i) {
            if (frames[i].index != static_cast<int>(i)) {
                ADD_FAILURE() << "video frame " << i << " shows index " << frames[i].index;
                break;
            }
        }
    }
    if (c.audio) {
        ASSERT_TRUE(audio->waitForEnd(kWaitMs, 1)) << "no audio end of stream";
        EXPECT_EQ(static_cast<int>(audio->frames().size()), probeFrameCount(path, "a"));
    }
    ASSERT_TRUE(log.waitFor(kTag, "Mux end.", kWaitMs));
    EXPECT_EQ(log.count(kTag, "Mux end."), 1);
    EXPECT_EQ(decoder.stop(), 0);
    if (video) {
        video->finish();
        EXPECT_EQ(video->ends(), 1);
    }
    if (audio) {
        audio->finish();
        EXPECT_EQ(audio->ends(), 1);
    }
    EXPECT_EQ(decoder.release(), 0);
    EXPECT_EQ(decoder.release(), 0) << "release twice is harmless";
}

INSTANTIATE_TEST_SUITE_P(Media, KavraMediaDecoderMedia,
                         ::testing::Values(MediaCase{"h264_aac.mp4", true, true},
                                           // Subtitle packets are dropped and freed.
                                           MediaCase{"with_subtitle.mp4", true, true},
                                           MediaCase{"video_only.mp4", true, false},
                                           MediaCase{"audio_only.m4a", false, true}));

TEST(KavraMediaDecoder, EndsATruncatedFileWhereItsDataEnds) {
    LogCapture log;
    KavraMediaDecoder decoder;
    open(decoder, fixture("truncated.mp4"), false);
    auto video = drain(decoder.getVideoOutputQueue());
    std::unique_ptr<OutputCollector> audio;
    if (decoder.getAudioOutputQueue() != nullptr) {
        audio = drain(decoder.getAudioOutputQueue());
    }
    ASSERT_EQ(decoder.start(), 0);
    ASSERT_TRUE(video->waitForEnd(kWaitMs, 1));
    if (audio) {
        ASSERT_TRUE(audio->waitForEnd(kWaitMs, 1));
    }
    ASSERT_TRUE(log.waitFor(kTag, "Mux end.", kWaitMs));
    std::vector<DecodedFrame> frames = video->frames();
    ASSERT_FALSE(frames.empty());
    EXPECT_LT(frames.size(), 300u);
    EXPECT_EQ(frames.front().index, 0);
    decoder.stop();
    video->finish();
    if (audio) {
        audio->finish();
    }
    decoder.release();
}

TEST(KavraMediaDecoder, PicksTheHardwareDecoderForH264Only) {
    struct Case {
        const char* file;
        bool hardware;
    };
    for (Case c : {Case{"h264_aac.mp4", true}, Case{"hevc.mp4", false}, Case{"mpeg4.mp4", false}}) {
        KavraMediaDecoder decoder;
        open(decoder, fixture(c.file), false);
        Decoder* video = decoder.getVideoDecoder();
        ASSERT_NE(video, nullptr) << c.file;
        EXPECT_EQ(dynamic_cast<MediaCodecVideoDecoder*>(video) != nullptr, c.hardware) << c.file;
        EXPECT_EQ(dynamic_cast<FFmpegDecoder*>(video) != nullptr, !c.hardware) << c.file;
        EXPECT_NE(dynamic_cast<FFmpegDecoder*>(decoder.getAudioDecoder()), nullptr) << c.file;
        decoder.release();
    }
}

TEST(KavraMediaDecoder, SeekAfterTheEndWakesTheParkedDemuxThread) {
    LogCapture log;
    KavraMediaDecoder decoder;
    open(decoder, fixture("h264_aac.mp4"), false);
    auto video = drain(decoder.getVideoOutputQueue());
    auto audio = drain(decoder.getAudioOutputQueue());
    ASSERT_EQ(decoder.start(), 0);
    ASSERT_TRUE(video->waitForEnd(kWaitMs, 1));
    ASSERT_TRUE(audio->waitForEnd(kWaitMs, 1));
    ASSERT_TRUE(log.waitFor(kTag, "Mux end.", kWaitMs));

    // Parked: no busy loop. The process's CPU time over 400 ms of waiting
    // stays far below what one spinning thread would use.
    double cpuBefore = cpuSeconds();
    EXPECT_FALSE(log.waitFor(kTag, "seekStart", 400)) << "nothing moves without a seek";
    EXPECT_LT(cpuSeconds() - cpuBefore, 0.2);

    video->clear();
    audio->clear();
    Clock::time_point start = Clock::now();
    decoder.seekTo(5000);
    EXPECT_LT(msSince(start), 5000);
    EXPECT_FALSE(log.contains(kTag, "seek time out."));
    std::vector<std::string> messages = log.messages(kTag);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "seekStart"), 1);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "seekEnd"), 1);

    // Reads on from the key frame at 5 s (frame 150) to the end again.
    ASSERT_TRUE(video->waitForEnd(kWaitMs, 2));
    ASSERT_TRUE(audio->waitForEnd(kWaitMs, 2));
    std::vector<DecodedFrame> frames = video->frames();
    ASSERT_EQ(frames.size(), 150u);
    for (size_t i = 0; i < frames.size(); ++i) {
        if (frames[i].index != static_cast<int>(150 + i)) {
            ADD_FAILURE() << "frame " << i << " after the seek shows index " << frames[i].index;
            break;
        }
    }
    std::vector<DecodedFrame> sound = audio->frames();
    ASSERT_FALSE(sound.empty());
    EXPECT_LE(sound.front().ptsMs, 5000);
    EXPECT_GE(sound.front().ptsMs, 4000);
    EXPECT_EQ(log.count(kTag, "Mux end."), 2);
    decoder.stop();
    video->finish();
    audio->finish();
    decoder.release();
}

// Whether a thread of this process sleeps in a pipe read, from the kernel's
// wait channels; true when the kernel does not name them.
bool threadSleepsInPipeRead() {
    DIR* tasks = opendir("/proc/self/task");
    if (tasks == nullptr) {
        return true;
    }
    bool named = false;
    bool reading = false;
    while (dirent* entry = readdir(tasks)) {
        if (entry->d_name[0] == '.') {
            continue;
        }
        std::ifstream wchan(std::string("/proc/self/task/") + entry->d_name + "/wchan");
        std::string channel;
        std::getline(wchan, channel);
        if (!channel.empty() && channel != "0") {
            named = true;
        }
        if (channel.find("pipe_read") != std::string::npos) {
            reading = true;
        }
    }
    closedir(tasks);
    return reading || !named;
}

// A file read through a named pipe whose writer stalls: the demux thread
// blocks in a real read until the test lets the writer go on.
class StallingPipe {
public:
    StallingPipe(const std::string& path, std::vector<uint8_t> bytes, size_t head, size_t tail)
        : mPath(path), mBytes(std::move(bytes)), mHead(head), mTail(tail) {
        EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
        mThread = std::thread([this] { run(); });
    }
    ~StallingPipe() {
        release(Stage::Close);
        mThread.join();
        unlink(mPath.c_str());
    }

    enum class Stage { Head, Tail, Close };

    // Waits until the head is written, the reader has taken all of it and
    // (where the kernel tells) a thread of this process sleeps in a read of
    // the pipe: only the demux thread reads it.
    bool waitUntilReaderBlocked(int timeoutMs) {
        return eventually(
            [&] {
                int pending = -1;
                return mHeadWritten && mFd >= 0 && ioctl(mFd, FIONREAD, &pending) == 0 && pending == 0 &&
                       threadSleepsInPipeRead();
            },
            timeoutMs);
    }

    void release(Stage stage) {
        std::lock_guard<std::mutex> lock(mMutex);
        if (stage > mAllowed) {
            mAllowed = stage;
        }
        mCond.notify_all();
    }

private:
    bool allowed(Stage stage) {
        std::unique_lock<std::mutex> lock(mMutex);
        // Bounded, so that a stuck test still ends; far longer than any
        // wait of the test itself, which must never see this fallback.
        return mCond.wait_for(lock, std::chrono::seconds(180), [&] { return mAllowed >= stage; });
    }

    void writeAll(size_t from, size_t count) {
        size_t done = 0;
        while (done < count) {
            ssize_t n = write(mFd, mBytes.data() + from + done, count - done);
            if (n <= 0) {
                return;
            }
            done += static_cast<size_t>(n);
        }
    }

    void run() {
        // Blocks until the reader opens the pipe.
        mFd = ::open(mPath.c_str(), O_WRONLY);
        if (mFd < 0) {
            return;
        }
        writeAll(0, mHead);
        mHeadWritten = true;
        allowed(Stage::Tail);
        // Small enough to fit the pipe's buffer: never blocks.
        writeAll(mHead, mTail);
        allowed(Stage::Close);
        close(mFd);
    }

    std::string mPath;
    std::vector<uint8_t> mBytes;
    size_t mHead;
    size_t mTail;
    std::atomic<int> mFd{-1};
    std::atomic<bool> mHeadWritten{false};
    std::mutex mMutex;
    std::condition_variable mCond;
    Stage mAllowed = Stage::Head;
    std::thread mThread;
};

TEST(KavraMediaDecoder, SeekAgainstABlockedReadTimesOutAndInterruptsTheExtractor) {
    ScratchDir scratch;
    const std::string dir = scratch.path();
    std::string ts = dir + "/clip.ts";
    ASSERT_EQ(runCommand("ffmpeg -v error -nostdin -y -i " + shellQuote(fixture("h264_aac.mp4")) +
                         " -c copy -f mpegts " + shellQuote(ts))
                  .status,
              0);
    std::ifstream in(ts, std::ios::binary);
    std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    ASSERT_GT(bytes.size(), 200000u);
    std::remove(ts.c_str());

    LogCapture log;
    const std::string fifo = dir + "/pipe.ts";
    const size_t head = bytes.size() / 2 / 188 * 188;
    StallingPipe pipe(fifo, bytes, head, 32 * 188);
    {
        KavraMediaDecoder decoder;
        open(decoder, fifo);
        ASSERT_TRUE(pipe.waitUntilReaderBlocked(kWaitMs)) << "the reader never took the head";

        // The demux thread is blocked in read().
        Clock::time_point start = Clock::now();
        decoder.seekTo(3000);
        long waited = msSince(start);
        EXPECT_GE(waited, 490);
        EXPECT_LT(waited, 5000);
        EXPECT_EQ(log.count(kTag, "seek time out."), 1);
        EXPECT_FALSE(log.contains(kTag, "seekStart")) << "the seek was given up, not carried out";

        // The writer goes on but keeps the pipe open: only the interrupt can
        // end the input now.
        pipe.release(StallingPipe::Stage::Tail);
        EXPECT_TRUE(log.waitFor(kTag, "Mux end.", 20000)) << "the extractor was not interrupted";

        // A later seek is carried out (on an extractor that reads nothing
        // more) and does not hang.
        start = Clock::now();
        decoder.seekTo(1000);
        EXPECT_LT(msSince(start), 5000);
        start = Clock::now();
        decoder.stop();
        EXPECT_LT(msSince(start), 5000);
        decoder.release();
    }
    pipe.release(StallingPipe::Stage::Close);
}

// A consumer that keeps a frame blocks the decoder's flush (the decoding
// thread cannot empty its queue under it). The seek must still give up
// after its 500 ms, finish once the frame is back, and leave the next seek
// working.
TEST(KavraMediaDecoder, SeekTimesOutWhileAHeldFrameBlocksTheFlushAndFinishesOnceItIsBack) {
    LogCapture log;
    KavraMediaDecoder decoder;
    open(decoder, fixture("mpeg4.mp4"));
    FrameBufferQueue* video = decoder.getVideoOutputQueue();
    ASSERT_TRUE(eventually([&] { return video->dequeueOutputBufferIndex(30) >= 0; }, kWaitMs));

    std::atomic<bool> returned{false};
    std::thread seeker([&] {
        decoder.seekTo(1000);
        returned = true;
    });
    bool inTime = eventually([&] { return returned.load(); }, 5000);
    EXPECT_TRUE(inTime) << "the seek waited for the held frame";
    EXPECT_EQ(log.count(kTag, "seek time out."), inTime ? 1 : 0);
    EXPECT_FALSE(log.contains(kTag, "seekEnd")) << "the flush cannot end while the frame is held";
    video->releaseOutputBuffer();
    seeker.join();
    EXPECT_TRUE(log.waitFor(kTag, "seekEnd", kWaitMs)) << "the flush ends once the frame is back";

    Clock::time_point start = Clock::now();
    decoder.seekTo(2000);
    EXPECT_LT(msSince(start), 5000);
    EXPECT_TRUE(log.waitFor(kTag, "seekStart", kWaitMs));
    std::vector<std::string> messages = log.messages(kTag);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "seekEnd"), 2);
    EXPECT_EQ(log.count(kTag, "seek time out."), 1) << "the second seek is carried out";
    EXPECT_EQ(decoder.stop(), 0);
    EXPECT_EQ(decoder.release(), 0);
}

TEST(KavraMediaDecoder, StopReturnsPromptlyWithFullQueues) {
    // Long enough that the queues fill up long before the end of input.
    ScratchDir dir;
    std::string big = dir.file("long.mp4");
    ASSERT_EQ(runCommand("ffmpeg -v error -nostdin -y -stream_loop 19 -i " + shellQuote(fixture("h264_aac.mp4")) +
                         " -c copy " + shellQuote(big))
                  .status,
              0);
    LogCapture log;
    KavraMediaDecoder decoder;
    open(decoder, big);
    // Nobody drains: the decoders fill their output queues, then the demux
    // thread fills their input queues and retries every 5 ms.
    FrameBufferQueue* videoOut = decoder.getVideoOutputQueue();
    FrameBufferQueue* audioOut = decoder.getAudioOutputQueue();
    // The hardware decoder makes its queue's slots on its own thread; only
    // the filled count is safe to watch from here.
    auto full = [](FrameBufferQueue* q) { return q->getSize() == Decoder::kOutputSlots; };
    ASSERT_TRUE(eventually([&] { return full(videoOut) && full(audioOut); }, kWaitMs));
    EXPECT_FALSE(log.waitFor(kTag, "Mux end.", 300)) << "the input is too long to be read through";

    Clock::time_point start = Clock::now();
    EXPECT_EQ(decoder.stop(), 0);
    EXPECT_LT(msSince(start), 2000);
    EXPECT_TRUE(log.contains(kTag, "onMuxPacket thread finish."));
    decoder.release();
}

TEST(KavraMediaDecoder, SwitchesTheAudioTrackThatIsDecoded) {
    const std::string path = fixture("two_audio.mp4");
    auto median = [](std::vector<DecodedFrame> items) {
        std::vector<int> values;
        for (const DecodedFrame& item : items) {
            values.push_back(item.crossings);
        }
        std::sort(values.begin(), values.end());
        return values.empty() ? -1 : values[values.size() / 2];
    };
    {
        // Chosen before starting.
        KavraMediaDecoder decoder;
        open(decoder, path, false);
        EXPECT_EQ(decoder.getCurrentAudioStreamIndex(), 1);
        ASSERT_EQ(decoder.selectAudioTrack(2), 0);
        EXPECT_EQ(decoder.getCurrentAudioStreamIndex(), 2);
        auto audio = drain(decoder.getAudioOutputQueue());
        ASSERT_EQ(decoder.start(), 0);
        ASSERT_TRUE(audio->waitForFrames(40, kWaitMs));
        // 1024 samples at 44.1 kHz: 880 Hz crosses zero about 41 times,
        // 440 Hz about 20.
        EXPECT_GT(median(audio->frames()), 34);
        audio->finish();
        decoder.stop();
        decoder.release();
    }
    {
        // Switched while the pipeline runs, then sought to where it was.
        KavraMediaDecoder decoder;
        open(decoder, path, false);
        {
            auto audio = drain(decoder.getAudioOutputQueue());
            ASSERT_EQ(decoder.start(), 0);
            ASSERT_TRUE(audio->waitForFrames(20, kWaitMs));
            EXPECT_LT(median(audio->frames()), 27) << "track 1 is the 440 Hz tone";
        }
        ASSERT_EQ(decoder.selectAudioTrack(2), 0);
        decoder.seekTo(2000);
        auto audio = drain(decoder.getAudioOutputQueue());
        ASSERT_TRUE(audio->waitForFrames(20, kWaitMs));
        std::vector<DecodedFrame> items = audio->frames();
        EXPECT_GT(median(items), 34) << "track 2 is the 880 Hz tone";
        EXPECT_GE(items.front().ptsMs, 1000);
        audio->finish();
        decoder.stop();
        decoder.release();
    }
}

TEST(KavraMediaDecoder, ReportsTheLaterStreamStartTime) {
    const std::string path = fixture("late_start.ts");
    Ffprobe probe(path);
    double latest = 0.0;
    for (int i = 0; i < probe.streamCount(); ++i) {
        latest = std::max(latest, probe.streamNumber(i, "start_time"));
    }
    KavraMediaDecoder decoder;
    open(decoder, path, false);
    EXPECT_EQ(decoder.getStreamStartTime(), static_cast<int>(latest * 1000.0));
    EXPECT_GT(decoder.getStreamStartTime(), 1000);
    decoder.release();
}

TEST(KavraMediaDecoder, LifecycleEdgesAreHarmless) {
    KavraMediaDecoder idle;
    EXPECT_EQ(idle.prepare(), -1);
    EXPECT_EQ(idle.getVideoOutputQueue(), nullptr);
    EXPECT_EQ(idle.getStreamStartTime(), 0);
    Clock::time_point start = Clock::now();
    idle.seekTo(-1);
    EXPECT_LT(msSince(start), 100) << "-1 returns at once";
    EXPECT_EQ(idle.stop(), 0);
    EXPECT_EQ(idle.release(), 0);

    // Choosing the audio stream again frees the earlier decoder first.
    LogCapture log;
    KavraMediaDecoder decoder;
    open(decoder, fixture("h264_aac.mp4"), false);
    ASSERT_EQ(decoder.selectAudioStream(0), 0);
    ASSERT_EQ(decoder.selectVideoStream(0), 0);
    ASSERT_EQ(decoder.start(), 0);
    ASSERT_EQ(decoder.selectAudioStream(0), 0) << "while running too";
    EXPECT_EQ(decoder.stop(), 0);
    EXPECT_EQ(decoder.start(), 0) << "a stopped pipeline does not start again";
    EXPECT_EQ(log.count(kTag, "onMuxPacket thread begin"), 1);
    EXPECT_EQ(decoder.release(), 0);
}

}  // namespace
}  // namespace kavra::test
