// The pre-allocated frame ring between a decoder and a renderer.

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <future>
#include <vector>

#include "Common/FrameBufferQueue.h"
#include "Render/RenderTestSupport.h"

namespace kavra::test {
namespace {

// A decoded-looking frame whose Y plane is filled with `value`.
ScopedAVFrame makeFrame(int width, int height, uint8_t value) {
    ScopedAVFrame frame = makeScopedAVFrame();
    frame->format = AV_PIX_FMT_YUV420P;
    frame->width = width;
    frame->height = height;
    EXPECT_EQ(av_frame_get_buffer(frame.get(), 0), 0);
    for (int y = 0; y < height; ++y) {
        memset(frame->data[0] + y * frame->linesize[0], value, static_cast<size_t>(width));
    }
    return frame;
}

// (Slots of raw bytes are not used by any decoder; they are left untested.)
TEST(FrameBufferQueueLifecycle, InvalidGeometryIsRefusedAndNothingPassesBeforeStart) {
    FrameBufferQueue q;
    EXPECT_EQ(q.create(0), -1);
    EXPECT_EQ(q.create(5, 0, 0, 10), -1);
    EXPECT_EQ(q.create(5, -1, 10, 10), -1);
    EXPECT_FALSE(q.isCreated());
    ASSERT_EQ(q.create(2), 0);
    ScopedAVFrame f = makeFrame(16, 16, 1);
    FrameBuffer s = videoRecord(f.get(), 12);
    EXPECT_EQ(q.queueInputBuffer(&s, 0), -3) << "room but not started: nothing moves";
    EXPECT_NE(f->data[0], nullptr) << "a refused frame stays with the caller";
    EXPECT_EQ(q.dequeueOutputBufferIndex(0), -3);
    EXPECT_EQ(q.releaseOutputBuffer(), -1) << "nothing was dequeued";
    q.release();
    q.release();
    EXPECT_FALSE(q.isCreated());
}

// Queues `n` frames and returns a reference to each one's pixels, so a test
// can see whether a slot still holds them.
std::vector<AVBufferRef*> queueFrames(FrameBufferQueue& q, int n) {
    std::vector<AVBufferRef*> refs;
    for (int i = 0; i < n; ++i) {
        ScopedAVFrame f = makeFrame(16, 16, static_cast<uint8_t>(i));
        refs.push_back(av_buffer_ref(f->buf[0]));
        FrameBuffer s = videoRecord(f.get(), 10 * i);
        EXPECT_EQ(q.queueInputBuffer(&s, 0), 0);
    }
    return refs;
}

// Drops the test's references; true when no slot held the frames any more.
bool allFreed(std::vector<AVBufferRef*>& refs) {
    bool freed = true;
    for (AVBufferRef*& ref : refs) {
        freed = freed && av_buffer_get_ref_count(ref) == 1;
        av_buffer_unref(&ref);
    }
    return freed;
}

TEST(FrameBufferQueueCreate, CreatingAgainFreesTheOldSlotsWithTheirOwnSizeAndType) {
    FrameBufferQueue q;
    ASSERT_EQ(q.create(2, AV_PIX_FMT_YUV420P, 16, 16), 0);
    ASSERT_EQ(q.create(2), 0) << "picture slots freed as pictures";
    q.start();
    std::vector<AVBufferRef*> held = queueFrames(q, 2);
    ASSERT_EQ(q.create(8), 0) << "two slots freed, not eight";
    EXPECT_TRUE(allFreed(held));
    q.start();
    held = queueFrames(q, 8);
    ASSERT_EQ(q.create(3), 0);
    EXPECT_TRUE(allFreed(held)) << "all eight slots freed, not three";
    q.start();
    held = queueFrames(q, 3);
    ASSERT_EQ(q.create(2, AV_PIX_FMT_YUV420P, 16, 16), 0);
    EXPECT_TRUE(allFreed(held)) << "frame slots freed as frames";
    ASSERT_EQ(q.create(2), 0);
    q.start();
    held = queueFrames(q, 2);
    EXPECT_EQ(q.create(0), -1);
    EXPECT_FALSE(q.isCreated());
    EXPECT_TRUE(allFreed(held)) << "a refused create still frees the old ring";
    q.release();
}

// Round the ring once and into its first slot again with the end-of-stream
// record, which carries no payload and leaves the slot's old frame alone.
TEST(FrameBufferQueueFrames, FramesMoveInByReferenceAndTheRingWrapsToSlotZero) {
    FrameBufferQueue q;
    ASSERT_EQ(q.create(3), 0);
    q.start();
    for (int i = 0; i < 3; ++i) {
        ScopedAVFrame f = makeFrame(64, 48, static_cast<uint8_t>(10 + 10 * i));
        uint8_t* plane = f->data[0];
        FrameBuffer s = videoRecord(f.get(), 100 * i);
        ASSERT_EQ(q.queueInputBuffer(&s, 0), 0);
        EXPECT_EQ(f->data[0], nullptr) << "the source frame is left empty";
        EXPECT_EQ(static_cast<AVFrame*>(q.getBuffer(i)->data)->data[0], plane) << "no copy was made";
    }
    ScopedAVFrame extra = makeFrame(64, 48, 1);
    FrameBuffer s = videoRecord(extra.get(), 999);
    EXPECT_EQ(q.queueInputBuffer(&s, 0), -2) << "full";
    for (int i = 0; i < 3; ++i) {
        ASSERT_EQ(q.dequeueOutputBufferIndex(0), i);
        FrameBuffer* slot = q.getBuffer(i);
        EXPECT_EQ(slot->ptsMs, 100 * i);
        EXPECT_EQ(pictureOf(slot)->data[0][0], 10 + 10 * i) << "an AVFrame reads as a picture";
        EXPECT_EQ(q.releaseOutputBuffer(), 0);
    }
    EXPECT_EQ(q.dequeueOutputBufferIndex(0), -2);

    s.size = 0;
    ASSERT_EQ(q.queueInputBuffer(&s, 0), 0);
    EXPECT_NE(extra->data[0], nullptr) << "no payload moves with an end-of-stream record";
    ASSERT_EQ(q.dequeueOutputBufferIndex(0), 0);
    EXPECT_EQ(q.getBuffer(0)->size, 0);
    EXPECT_EQ(pictureOf(q.getBuffer(0))->data[0][0], 10) << "the old frame is still there";
    q.releaseOutputBuffer();
    q.release();
}

// A dequeue that ran out keeps no lock, and abort wakes a producer waiting
// on a full ring and a consumer waiting on an empty one. The 30 ms wait only
// gives them time to fall asleep: a late waiter makes the check weaker,
// never wrong. (A release waking the producer is the threads test's.)
TEST(FrameBufferQueueWaits, TimedOutWaitsKeepNoLockAndAbortWakesEveryWaiter) {
    FrameBufferQueue full;
    ASSERT_EQ(full.create(1), 0);
    full.start();
    EXPECT_EQ(full.dequeueOutputBufferIndex(20), -2);
    auto flushed = std::async(std::launch::async, [&] { full.flush(); });
    ASSERT_EQ(flushed.wait_for(std::chrono::seconds(5)), std::future_status::ready) << "the lock was kept";
    ScopedAVFrame first = makeFrame(16, 16, 1);
    ScopedAVFrame second = makeFrame(16, 16, 2);
    FrameBuffer s = videoRecord(first.get(), 0);
    ASSERT_EQ(full.queueInputBuffer(&s, 0), 0);
    s = videoRecord(second.get(), 1);
    EXPECT_EQ(full.queueInputBuffer(&s, 20), -2);
    FrameBufferQueue empty;
    ASSERT_EQ(empty.create(2), 0);
    empty.start();
    auto consumer = std::async(std::launch::async, [&] { return empty.dequeueOutputBufferIndex(-1); });
    auto producer = std::async(std::launch::async, [&] { return full.queueInputBuffer(&s, -1); });
    EXPECT_EQ(consumer.wait_for(std::chrono::milliseconds(30)), std::future_status::timeout);
    empty.abort();
    full.abort();
    ASSERT_EQ(consumer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    ASSERT_EQ(producer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
    EXPECT_EQ(consumer.get(), -3);
    EXPECT_EQ(producer.get(), -3);
    // The aborted consumer gave its lock back: flush and restart work.
    empty.flush();
    empty.start();
    EXPECT_EQ(empty.dequeueOutputBufferIndex(0), -2);
    empty.release();
    full.release();
}

// Every wait is bounded and must end in success, so a wake-up lost on either
// side fails the test instead of passing after a retry. Now and then the
// consumer holds a slot for longer than either side watches the ring before
// it sleeps, so that the producer really sleeps on a full ring and must be
// woken by a release.
TEST(FrameBufferQueueThreads, OneProducerOneConsumerSeeEveryFrameInOrder) {
    FrameBufferQueue q;
    ASSERT_EQ(q.create(5), 0);
    q.start();
    constexpr int kFrames = 300;
    auto producer = std::async(std::launch::async, [&] {
        for (int i = 0; i < kFrames; ++i) {
            ScopedAVFrame src = makeFrame(32, 32, static_cast<uint8_t>(i));
            FrameBuffer s = videoRecord(src.get(), i);
            if (q.queueInputBuffer(&s, 5000) != 0) {
                return false;
            }
        }
        return true;
    });
    for (int i = 0; i < kFrames; ++i) {
        if (i % 25 == 0) {
            auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(1);
            while (std::chrono::steady_clock::now() < until) {
            }
        }
        int index = q.dequeueOutputBufferIndex(5000);
        ASSERT_GE(index, 0);
        FrameBuffer* slot = q.getBuffer(index);
        ASSERT_EQ(slot->ptsMs, i);
        ASSERT_EQ(pictureOf(slot)->data[0][0], static_cast<uint8_t>(i));
        q.releaseOutputBuffer();
    }
    EXPECT_TRUE(producer.get());
    q.release();
}

}  // namespace
}  // namespace kavra::test
