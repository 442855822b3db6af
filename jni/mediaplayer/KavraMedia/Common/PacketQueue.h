#pragma once

#include "NativeCondition.h"
#include "NativeMutex.h"

extern "C" {
#include <libavcodec/packet.h>
}

// Bounded first-in first-out queue of compressed packets between one demux
// thread and one decoder thread (any number of either is safe). Bounded by
// packet count and by bytes; every blocking call takes a time-out in ms:
// -1 waits without limit, values below 1 never wait.
//
// Results: 0 success, -1 allocation failure, -2 full (put) or empty (get)
// when the wait ran out or was not allowed, -3 aborted.
//
// Marker packets (endPacket, flushPacket) are recognised by the identity of
// their data pointer and pass through the queue unduplicated.
class PacketQueue {
public:
    // Bytes accounted per queued packet on top of its payload: the size of
    // one list node.
    static constexpr int kNodeOverhead = 104;

    PacketQueue();
    ~PacketQueue();
    PacketQueue(const PacketQueue&) = delete;
    PacketQueue& operator=(const PacketQueue&) = delete;

    void setMaxSize(int bytes) { maxSize = bytes; }
    void setMaxNum(int packets) { maxNum = packets; }

    void start();
    // Closes the queue and wakes every waiter with -3; queued packets stay
    // until flush().
    void abort();
    // On success the queue owns the payload and `pkt` is left blank; on
    // failure the caller keeps it and must unref it.
    int put(AVPacket* pkt, int timeoutMs);
    // The lock must be held by the caller.
    int putInner(AVPacket* pkt, int timeoutMs);
    // On success `out` owns the payload (release with av_packet_unref;
    // markers carry static data and need nothing).
    int get(AVPacket* out, int timeoutMs);
    // The lock must be held by the caller.
    int getInner(AVPacket* out, int timeoutMs);
    // Frees every queued packet; leaves the abort state as it is.
    void flush();

    bool isEndPacket(const AVPacket* pkt) const { return pkt != nullptr && pkt->data == endPacket.data; }
    bool isFlushPacket(const AVPacket* pkt) const { return pkt != nullptr && pkt->data == flushPacket.data; }
    // Byte total of queued packets (payload plus node overhead), locked.
    int getSize();
    // Packets queued, locked.
    int getCount();

    // Marker with the static data "FLUSH", size 0.
    AVPacket flushPacket;
    // End-of-stream marker with the static data "END", size 0.
    AVPacket endPacket;
    // No data, size 0: what a decoder is fed to drain it. Never queued.
    AVPacket emptyPacket;
    // Limits; set before the queue is shared between threads.
    int maxSize;
    int maxNum;

private:
    struct Node {
        AVPacket pkt;
        Node* next;
    };

    // putInner and getInner without the wake-up.
    int putLocked(AVPacket* pkt, int timeoutMs);
    int getLocked(AVPacket* out, int timeoutMs);
    bool hasRoomLocked(const AVPacket* pkt) const;
    // Empties the queue; the nodes are kept for reuse.
    void freeNodesLocked();
    // Emptied nodes are kept (up to kMaxSpareNodes) and reused, so that a
    // queue in steady use allocates nothing per packet.
    Node* takeNodeLocked();
    void recycleNodeLocked(Node* node);
    void freeSpareNodesLocked();
    static constexpr int kMaxSpareNodes = 64;
    bool isMarker(const AVPacket* pkt) const { return isEndPacket(pkt) || isFlushPacket(pkt); }

    // Guarded by mLock.
    int size;
    int count;
    Node* first;
    Node* last;
    Node* mSpareNodes;
    int mSpareCount;
    bool abortRequest;
    NativeMutex mLock;
    NativeCondition mCond;
};
