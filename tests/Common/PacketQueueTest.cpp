// The bounded packet queue between the demux thread and a decoder.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>

#include "Common/FFmpegPtr.h"
#include "Common/PacketQueue.h"

namespace kavra::test {
namespace {

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

// Limits count payload bytes (without the node overhead) and packets; the
// queue takes a counted payload over and copies one the demuxer still owns.
TEST_F(PacketQueueTest, LimitsRefuseWithAndWithoutWaitingAndBorrowedPayloadsAreCopied) {
    queue.setMaxSize(1000);
    ScopedAVPacket big = makePacket(1001, 1);
    EXPECT_EQ(queue.put(big.get(), 0), -2) << "never admitted, even into an empty queue";
    EXPECT_EQ(queue.put(big.get(), 5), -2);
    ScopedAVPacket fits = makePacket(1000, 1);
    EXPECT_EQ(queue.put(fits.get(), 0), 0);
    EXPECT_EQ(fits->data, nullptr) << "the queue took the payload";
    ScopedAVPacket more = makePacket(1, 1);
    EXPECT_EQ(queue.put(more.get(), 0), -2);
    EXPECT_EQ(queue.getSize(), 1000 + PacketQueue::kNodeOverhead);
    queue.setMaxSize(1 << 20);
    queue.setMaxNum(2);
    uint8_t borrowed[32];
    memset(borrowed, 7, sizeof(borrowed));
    AVPacket plain;
    memset(&plain, 0, sizeof(plain));
    plain.data = borrowed;
    plain.size = sizeof(borrowed);
    ASSERT_EQ(queue.put(&plain, 0), 0);
    memset(borrowed, 0, sizeof(borrowed));
    EXPECT_EQ(queue.put(more.get(), 5), -2);
    ScopedAVPacket out = makeScopedAVPacket();
    ASSERT_EQ(queue.get(out.get(), 0), 0);
    EXPECT_EQ(out->size, 1000);
    av_packet_unref(out.get());
    ASSERT_EQ(queue.get(out.get(), 0), 0);
    ASSERT_EQ(out->size, 32);
    EXPECT_EQ(out->data[31], 7);
    EXPECT_EQ(queue.getSize(), 0);
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
    bool woken = true;
    for (auto* f : {&producer, &timedProducer, &consumer}) {
        woken = woken && f->wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    }
    EXPECT_TRUE(woken) << "abort must wake every waiter";
    if (!woken) {
        // Wake them by room and by a packet, so the test ends with its failure.
        queue.start();
        empty.start();
        for (int i = 0; i < 2; ++i) {
            ScopedAVPacket out = makeScopedAVPacket();
            queue.get(out.get(), 1000);
        }
        ScopedAVPacket pkt = makePacket(4, 4);
        empty.put(pkt.get(), 0);
    }
    for (auto* f : {&producer, &timedProducer, &consumer}) {
        EXPECT_EQ(f->get(), -3);
    }
}

// Nothing passes before start; packets survive an abort and a restart, and
// flush frees them even in an aborted queue (under the address sanitizer a
// payload it forgot is a leak), as does destruction.
TEST(PacketQueueLifecycle, RefusesUntilStartedAndFlushFreesQueuedPayloadsEvenWhenAborted) {
    PacketQueue queue;
    ScopedAVPacket pkt = makePacket(10, 1);
    EXPECT_EQ(queue.put(pkt.get(), 0), -3);
    EXPECT_NE(pkt->data, nullptr) << "a refused packet stays with the caller";
    ScopedAVPacket out = makeScopedAVPacket();
    EXPECT_EQ(queue.get(out.get(), 0), -3);
    queue.start();
    EXPECT_EQ(queue.get(out.get(), 0), -2) << "empty";
    for (int i = 0; i < 10; ++i) {
        ScopedAVPacket full = makePacket(1000, 1);
        ASSERT_EQ(queue.put(full.get(), 0), 0);
    }
    queue.abort();
    EXPECT_EQ(queue.get(out.get(), 0), -3) << "an aborted queue hands nothing out";
    queue.start();
    ASSERT_EQ(queue.get(out.get(), 0), 0) << "queued packets survive abort and restart";
    av_packet_unref(out.get());
    queue.abort();
    queue.flush();
    EXPECT_EQ(queue.getCount(), 0);
    EXPECT_EQ(queue.getSize(), 0);
    EXPECT_EQ(queue.put(pkt.get(), 0), -3) << "flush leaves the queue aborted";
    queue.start();
    EXPECT_EQ(queue.put(pkt.get(), 0), 0);
    EXPECT_EQ(queue.put(&queue.endPacket, 0), 0);
}

// Both sides wait with a bound and must succeed: with four packets at most
// in the queue, the producer keeps waiting for room and the consumer for
// packets, so a wake-up lost on either side fails the test. The end marker
// goes last.
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
            EXPECT_EQ(out->buf, nullptr) << "the end marker passes without a buffer of its own";
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
