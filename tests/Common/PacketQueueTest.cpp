// The bounded packet queue between the demux thread and a decoder.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <thread>

#include "Common/FFmpegPtr.h"
#include "Common/PacketQueue.h"
#include "support/LogCapture.h"

namespace kavra::test {
namespace {

using Clock = std::chrono::steady_clock;

// A packet with a reference-counted payload of `bytes` bytes filled with
// `fill`, as a demuxer hands out.
ScopedAVPacket makePacket(int bytes, uint8_t fill, int64_t pts = 0) {
    ScopedAVPacket pkt = makeScopedAVPacket();
    EXPECT_EQ(av_new_packet(pkt.get(), bytes), 0);
    memset(pkt->data, fill, static_cast<size_t>(bytes));
    pkt->pts = pts;
    return pkt;
}

class PacketQueueTest : public ::testing::Test {
protected:
    void SetUp() override { queue.start(); }
    PacketQueue queue;
};

TEST(PacketQueueLifecycle, RefusesEverythingUntilStarted) {
    PacketQueue queue;
    ScopedAVPacket pkt = makePacket(10, 1);
    EXPECT_EQ(queue.put(pkt.get(), 0), -3);
    EXPECT_NE(pkt->data, nullptr) << "a refused packet stays with the caller";
    ScopedAVPacket out = makeScopedAVPacket();
    EXPECT_EQ(queue.get(out.get(), 0), -3);
    queue.start();
    EXPECT_EQ(queue.put(pkt.get(), 0), 0);
    queue.abort();
    EXPECT_EQ(queue.get(out.get(), 0), -3) << "an aborted queue hands nothing out";
    queue.start();
    EXPECT_EQ(queue.get(out.get(), 0), 0) << "queued packets survive abort and restart";
    av_packet_unref(out.get());
}

TEST_F(PacketQueueTest, PacketsComeOutInOrderWithTheirPayloadAndAccounting) {
    for (int i = 0; i < 5; ++i) {
        ScopedAVPacket pkt = makePacket(100 + i, static_cast<uint8_t>(i), i);
        ASSERT_EQ(queue.put(pkt.get(), 0), 0);
        EXPECT_EQ(pkt->data, nullptr) << "the queue took the payload";
    }
    EXPECT_EQ(queue.getCount(), 5);
    EXPECT_EQ(queue.getSize(), (100 + 101 + 102 + 103 + 104) + 5 * PacketQueue::kNodeOverhead);
    for (int i = 0; i < 5; ++i) {
        ScopedAVPacket out = makeScopedAVPacket();
        ASSERT_EQ(queue.get(out.get(), 0), 0);
        EXPECT_EQ(out->pts, i);
        ASSERT_EQ(out->size, 100 + i);
        EXPECT_EQ(out->data[0], i);
        EXPECT_EQ(out->data[out->size - 1], i);
        av_packet_unref(out.get());
    }
    EXPECT_EQ(queue.getCount(), 0);
    EXPECT_EQ(queue.getSize(), 0);
}

TEST_F(PacketQueueTest, PayloadsTheDemuxerStillOwnsAreCopied) {
    // A packet whose data is not reference counted (a demuxer's own buffer):
    // the queue must not keep a pointer into memory the caller reuses.
    uint8_t borrowed[32];
    memset(borrowed, 7, sizeof(borrowed));
    AVPacket pkt;
    memset(&pkt, 0, sizeof(pkt));
    pkt.data = borrowed;
    pkt.size = sizeof(borrowed);
    ASSERT_EQ(queue.put(&pkt, 0), 0);
    memset(borrowed, 0, sizeof(borrowed));
    ScopedAVPacket out = makeScopedAVPacket();
    ASSERT_EQ(queue.get(out.get(), 0), 0);
    EXPECT_NE(out->data, borrowed);
    EXPECT_EQ(out->data[31], 7);
    av_packet_unref(out.get());
}

TEST_F(PacketQueueTest, CountLimitRefusesWithAndWithoutWaiting) {
    queue.setMaxNum(1);
    ScopedAVPacket a = makePacket(10, 1);
    ScopedAVPacket b = makePacket(10, 2);
    ASSERT_EQ(queue.put(a.get(), 0), 0);
    EXPECT_EQ(queue.put(b.get(), 0), -2);
    auto start = Clock::now();
    EXPECT_EQ(queue.put(b.get(), 30), -2);
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count(), 29);
    EXPECT_EQ(queue.getCount(), 1);
}

TEST_F(PacketQueueTest, ByteLimitRefusesAPacketLargerThanTheLimit) {
    queue.setMaxSize(1000);
    ScopedAVPacket big = makePacket(1001, 1);
    EXPECT_EQ(queue.put(big.get(), 0), -2) << "never admitted, even into an empty queue";
    EXPECT_EQ(queue.put(big.get(), 5), -2);
    ScopedAVPacket fits = makePacket(1000, 1);
    EXPECT_EQ(queue.put(fits.get(), 0), 0) << "the node overhead is not part of the room test";
    ScopedAVPacket more = makePacket(1, 1);
    EXPECT_EQ(queue.put(more.get(), 0), -2);
}

TEST_F(PacketQueueTest, EmptyQueueTimesOutAGet) {
    ScopedAVPacket out = makeScopedAVPacket();
    EXPECT_EQ(queue.get(out.get(), 0), -2);
    auto start = Clock::now();
    EXPECT_EQ(queue.get(out.get(), 25), -2);
    EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count(), 24);
}

TEST_F(PacketQueueTest, BlockedConsumerIsWokenByAPut) {
    auto consumer = std::async(std::launch::async, [&] {
        ScopedAVPacket out = makeScopedAVPacket();
        int ret = queue.get(out.get(), -1);
        int64_t pts = out->pts;
        av_packet_unref(out.get());
        return ret == 0 ? pts : -1;
    });
    ScopedAVPacket pkt = makePacket(4, 1, 42);
    ASSERT_EQ(queue.put(pkt.get(), 0), 0);
    ASSERT_EQ(consumer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(consumer.get(), 42);
}

TEST_F(PacketQueueTest, AbortWakesABlockedProducerAndABlockedConsumer) {
    PacketQueue empty;
    empty.start();
    queue.setMaxNum(1);
    ScopedAVPacket first = makePacket(4, 1);
    ASSERT_EQ(queue.put(first.get(), 0), 0);

    auto producer = std::async(std::launch::async, [&] {
        ScopedAVPacket pkt = makePacket(4, 2);
        return queue.put(pkt.get(), -1);
    });
    auto timedProducer = std::async(std::launch::async, [&] {
        ScopedAVPacket pkt = makePacket(4, 3);
        return queue.put(pkt.get(), 60000);
    });
    auto consumer = std::async(std::launch::async, [&] {
        ScopedAVPacket out = makeScopedAVPacket();
        return empty.get(out.get(), -1);
    });
    // Nothing can finish before the aborts.
    EXPECT_EQ(producer.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
    queue.abort();
    empty.abort();
    ASSERT_EQ(producer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    ASSERT_EQ(timedProducer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    ASSERT_EQ(consumer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(producer.get(), -3);
    EXPECT_EQ(timedProducer.get(), -3);
    EXPECT_EQ(consumer.get(), -3);
}

TEST_F(PacketQueueTest, EndMarkerPassesThroughUnduplicated) {
    ScopedAVPacket before = makePacket(8, 1);
    ASSERT_EQ(queue.put(before.get(), 0), 0);
    ASSERT_EQ(queue.put(&queue.endPacket, 0), 0);
    EXPECT_TRUE(queue.isEndPacket(&queue.endPacket)) << "putting the marker leaves it intact";
    ScopedAVPacket out = makeScopedAVPacket();
    ASSERT_EQ(queue.get(out.get(), 0), 0);
    EXPECT_FALSE(queue.isEndPacket(out.get()));
    av_packet_unref(out.get());
    ASSERT_EQ(queue.get(out.get(), 0), 0);
    EXPECT_EQ(out->data, queue.endPacket.data);
    EXPECT_EQ(out->size, 0);
    EXPECT_EQ(out->buf, nullptr) << "no buffer was made for the marker";
    EXPECT_EQ(queue.getSize(), 0);
    EXPECT_EQ(std::memcmp(queue.endPacket.data, "END", 4), 0);
    EXPECT_EQ(std::memcmp(queue.flushPacket.data, "FLUSH", 6), 0);
    EXPECT_EQ(queue.emptyPacket.data, nullptr);
}

TEST_F(PacketQueueTest, FlushFreesQueuedPayloadsEvenWhenAborted) {
    // Run under the address sanitizer, a payload flush forgot is a leak.
    for (int i = 0; i < 10; ++i) {
        ScopedAVPacket pkt = makePacket(1000, 1);
        ASSERT_EQ(queue.put(pkt.get(), 0), 0);
    }
    queue.abort();
    queue.flush();
    EXPECT_EQ(queue.getCount(), 0);
    EXPECT_EQ(queue.getSize(), 0);
    ScopedAVPacket pkt = makePacket(10, 1);
    EXPECT_EQ(queue.put(pkt.get(), 0), -3) << "flush leaves the queue aborted";
    queue.start();
    EXPECT_EQ(queue.put(pkt.get(), 0), 0);
}

TEST(PacketQueueDestruction, FreesWhatIsStillQueuedAndSaysSo) {
    LogCapture log;
    {
        PacketQueue queue;
        queue.start();
        ScopedAVPacket pkt = makePacket(500, 1);
        ASSERT_EQ(queue.put(pkt.get(), 0), 0);
        ASSERT_EQ(queue.put(&queue.endPacket, 0), 0);
    }
    EXPECT_EQ(log.messages("PacketQueue"), std::vector<std::string>{"~PacketQueue"});
}

// Both sides wait with a bound and must succeed: with four packets at most
// in the queue, the producer keeps waiting for room and the consumer for
// packets, so a wake-up lost on either side fails the test.
TEST_F(PacketQueueTest, ProducerAndConsumerThreadsPassEveryPacketOnce) {
    queue.setMaxNum(4);
    constexpr int kPackets = 2000;
    auto producer = std::async(std::launch::async, [&] {
        for (int i = 0; i < kPackets; ++i) {
            ScopedAVPacket pkt = makePacket(16, static_cast<uint8_t>(i), i);
            if (queue.put(pkt.get(), 5000) != 0) {
                return -1;
            }
        }
        return queue.put(&queue.endPacket, 5000);
    });
    int64_t expected = 0;
    for (;;) {
        ScopedAVPacket out = makeScopedAVPacket();
        ASSERT_EQ(queue.get(out.get(), 5000), 0);
        if (queue.isEndPacket(out.get())) {
            break;
        }
        ASSERT_EQ(out->pts, expected);
        ASSERT_EQ(out->data[0], static_cast<uint8_t>(expected));
        ++expected;
        av_packet_unref(out.get());
    }
    EXPECT_EQ(expected, kPackets);
    EXPECT_EQ(producer.get(), 0);
}

}  // namespace
}  // namespace kavra::test
