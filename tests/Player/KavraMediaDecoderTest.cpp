// The demux pipeline on real media with the real decoders: seeks against a
// blocked read and a held frame, prompt stops and the choice of decoder.
// (Every packet to its decoder and the ends of the streams are checked
// through the decode command and the player.)

#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "Decoder/FFmpegDecoder.h"
#include "Decoder/MediaCodecVideoDecoder.h"
#include "Player/KavraMediaDecoder.h"
#include "support/Fixtures.h"
#include "support/LogCapture.h"
#include "support/Process.h"
#include "support/ScratchDir.h"

namespace kavra::test {
namespace {

const char* const kTag = "KavraMediaDecoder";
constexpr int kWaitMs = 60000;

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
        std::ifstream wchan(std::string("/proc/self/task/") + entry->d_name + "/wchan");
        std::string channel;
        std::getline(wchan, channel);
        named = named || (!channel.empty() && channel != "0");
        reading = reading || channel.find("pipe_read") != std::string::npos;
    }
    closedir(tasks);
    return reading || !named;
}

// The first half of an MPEG-TS clip through a named pipe whose writer then
// stalls: the demux thread blocks in a real read. The writer then adds a
// little but keeps the pipe open, so only the extractor's interrupt can end
// that input.
TEST(KavraMediaDecoder, SeekAgainstABlockedReadTimesOutAndInterruptsTheExtractor) {
    ScratchDir scratch;
    const std::string ts = scratch.file("clip.ts");
    ASSERT_EQ(runCommand("ffmpeg -v error -nostdin -y -i " + shellQuote(fixture("h264_aac.mp4")) +
                         " -c copy -f mpegts " + shellQuote(ts))
                  .status,
              0);
    std::ifstream in(ts, std::ios::binary);
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t head = bytes.size() / 2 / 188 * 188;
    const std::string fifo = scratch.file("pipe.ts");
    ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
    std::atomic<int> fd{-1};
    std::atomic<bool> headWritten{false};
    std::promise<void> tail;
    std::promise<void> done;
    std::thread writer([&, tailFuture = tail.get_future(), doneFuture = done.get_future()] {
        auto writeAll = [&](size_t at, size_t end) {
            while (fd >= 0 && at < end) {
                const ssize_t n = write(fd, bytes.data() + at, end - at);
                at += n > 0 ? static_cast<size_t>(n) : end;
            }
        };
        fd = ::open(fifo.c_str(), O_WRONLY);  // blocks until the reader opens it
        writeAll(0, head);
        headWritten = true;
        // Bounded, far beyond the test's own waits.
        tailFuture.wait_for(std::chrono::seconds(180));
        writeAll(head, head + 32 * 188);  // fits the pipe's buffer
        doneFuture.wait_for(std::chrono::seconds(180));
        close(fd);
    });
    LogCapture log;
    KavraMediaDecoder decoder;
    // Destroyed before the decoder, however the test ends: the writer lets
    // a blocked reader go on, then ends.
    struct WriterEnd {
        std::promise<void>& tail;
        std::promise<void>& done;
        std::thread& writer;
        bool tailSent = false;
        ~WriterEnd() {
            if (!tailSent) {
                tail.set_value();
            }
            done.set_value();
            writer.join();
        }
    } writerEnd{tail, done, writer};
    open(decoder, fifo);
    ASSERT_TRUE(eventually(
        [&] {
            int pending = -1;
            return headWritten && ioctl(fd, FIONREAD, &pending) == 0 && pending == 0 && threadSleepsInPipeRead();
        },
        kWaitMs))
        << "the reader never took the head";
    decoder.seekTo(3000);
    EXPECT_EQ(log.count(kTag, "seek time out."), 1);
    EXPECT_FALSE(log.contains(kTag, "seekStart")) << "the seek was given up, not carried out";
    tail.set_value();
    writerEnd.tailSent = true;
    EXPECT_TRUE(log.waitFor(kTag, "Mux end.", kWaitMs)) << "the extractor was not interrupted";
    // A later seek and the stop return (on an extractor that reads nothing
    // more); a hang fails the run.
    decoder.seekTo(1000);
    decoder.stop();
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

    decoder.seekTo(2000);
    EXPECT_TRUE(log.waitFor(kTag, "seekStart", kWaitMs));
    std::vector<std::string> messages = log.messages(kTag);
    EXPECT_EQ(std::count(messages.begin(), messages.end(), "seekEnd"), 2);
    EXPECT_EQ(log.count(kTag, "seek time out."), 1) << "the second seek is carried out";
    EXPECT_EQ(decoder.stop(), 0);
    EXPECT_EQ(decoder.release(), 0);
}

TEST(KavraMediaDecoder, StopEndsTheDemuxThreadWithFullQueues) {
    // Long enough that the queues fill up long before the end of input.
    ScratchDir dir;
    const std::string big = dir.file("long.mp4");
    ASSERT_EQ(runCommand("ffmpeg -v error -nostdin -y -stream_loop 19 -i " + shellQuote(fixture("h264_aac.mp4")) +
                         " -c copy " + shellQuote(big))
                  .status,
              0);
    LogCapture log;
    KavraMediaDecoder decoder;
    open(decoder, big);
    // Nobody drains: the decoders fill their output queues, then the demux
    // thread fills their input queues and retries every 5 ms. The hardware
    // decoder makes its queue's slots on its own thread; only the filled
    // count is safe to watch from here.
    auto full = [](FrameBufferQueue* q) { return q->getSize() == Decoder::kOutputSlots; };
    ASSERT_TRUE(eventually([&] { return full(decoder.getVideoOutputQueue()) && full(decoder.getAudioOutputQueue()); },
                           kWaitMs));
    EXPECT_EQ(decoder.stop(), 0);
    EXPECT_TRUE(log.contains(kTag, "onMuxPacket thread finish."));
    EXPECT_FALSE(log.contains(kTag, "Mux end.")) << "stopped with the input still to read";
    decoder.release();
}

}  // namespace
}  // namespace kavra::test
