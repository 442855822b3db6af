#include "PacketQueue.h"

#include <android/log.h>
#include <cstring>

extern "C" {
#include <libavutil/mem.h>
}

namespace {
const char* const kTag = "PacketQueue";
// Static marker payloads; their addresses identify the markers.
char kFlushData[] = "FLUSH";
char kEndData[] = "END";
// Default limits: effectively unbounded until the owner sets its own.
constexpr int kDefaultLimit = 1073741824;

void initMarker(AVPacket* pkt, char* data) {
    memset(pkt, 0, sizeof(*pkt));
    pkt->pts = AV_NOPTS_VALUE;
    pkt->dts = AV_NOPTS_VALUE;
    pkt->pos = -1;
    pkt->data = reinterpret_cast<uint8_t*>(data);
    pkt->size = 0;
}
}  // namespace

PacketQueue::PacketQueue()
    : maxSize(kDefaultLimit), maxNum(kDefaultLimit), size(0), count(0),
      first(nullptr), last(nullptr), mSpareNodes(nullptr), mSpareCount(0), abortRequest(true) {
    initMarker(&flushPacket, kFlushData);
    initMarker(&endPacket, kEndData);
    initMarker(&emptyPacket, nullptr);
}

PacketQueue::~PacketQueue() {
    mLock.lock();
    freeNodesLocked();
    freeSpareNodesLocked();
    mLock.unlock();
    av_packet_unref(&flushPacket);
    av_packet_unref(&endPacket);
    av_packet_unref(&emptyPacket);
    __android_log_print(ANDROID_LOG_ERROR, kTag, "~PacketQueue");
}

void PacketQueue::start() {
    NativeMutexLock lock(mLock);
    abortRequest = false;
}

void PacketQueue::abort() {
    NativeMutexLock lock(mLock);
    abortRequest = true;
    mCond.notifyAll();
}

int PacketQueue::put(AVPacket* pkt, int timeoutMs) {
    if (pkt == nullptr) {
        return -1;
    }
    // The waiter is woken after the lock is given back: woken while the
    // lock is still held, it would only block on it again at once.
    int ret;
    {
        NativeMutexLock lock(mLock);
        // Make the payload the queue's own unless it already is reference
        // counted; markers keep their static data so they stay
        // recognisable.
        if (!isMarker(pkt) && av_packet_make_refcounted(pkt) < 0) {
            __android_log_print(ANDROID_LOG_ERROR, kTag, "av_dup_packet error");
            ret = -1;
        } else {
            ret = putLocked(pkt, timeoutMs);
        }
    }
    if (ret == 0) {
        mCond.notifyOne();
    }
    return ret;
}

bool PacketQueue::hasRoomLocked(const AVPacket* pkt) const {
    return count < maxNum && static_cast<long long>(size) + pkt->size <= maxSize;
}

int PacketQueue::putInner(AVPacket* pkt, int timeoutMs) {
    int ret = putLocked(pkt, timeoutMs);
    if (ret == 0) {
        mCond.notifyOne();
    }
    return ret;
}

int PacketQueue::putLocked(AVPacket* pkt, int timeoutMs) {
    if (abortRequest) {
        return -3;
    }
    if (timeoutMs == -1) {
        while (!hasRoomLocked(pkt)) {
            mCond.wait(mLock);
            if (abortRequest) {
                return -3;
            }
        }
    } else if (timeoutMs >= 1) {
        while (!hasRoomLocked(pkt)) {
            if (!mCond.wait(mLock, timeoutMs)) {
                return -2;
            }
            if (abortRequest) {
                return -3;
            }
        }
    } else if (!hasRoomLocked(pkt)) {
        return -2;
    }

    Node* node = takeNodeLocked();
    if (node == nullptr) {
        __android_log_print(ANDROID_LOG_ERROR, kTag, "av_malloc error");
        return -1;
    }
    if (isMarker(pkt)) {
        node->pkt = *pkt;  // static payload: a plain copy keeps its identity
    } else {
        memset(&node->pkt, 0, sizeof(node->pkt));
        av_packet_move_ref(&node->pkt, pkt);
    }
    node->next = nullptr;
    if (last == nullptr) {
        first = node;
    } else {
        last->next = node;
    }
    last = node;
    size += node->pkt.size + kNodeOverhead;
    count += 1;
    return 0;
}

int PacketQueue::get(AVPacket* out, int timeoutMs) {
    if (out == nullptr) {
        return -1;
    }
    // The waiter is woken after the lock is given back.
    int ret;
    {
        NativeMutexLock lock(mLock);
        ret = getLocked(out, timeoutMs);
    }
    if (ret == 0) {
        mCond.notifyOne();
    }
    return ret;
}

int PacketQueue::getInner(AVPacket* out, int timeoutMs) {
    int ret = getLocked(out, timeoutMs);
    if (ret == 0) {
        mCond.notifyOne();
    }
    return ret;
}

int PacketQueue::getLocked(AVPacket* out, int timeoutMs) {
    if (abortRequest) {
        return -3;
    }
    if (timeoutMs == -1) {
        while (first == nullptr) {
            mCond.wait(mLock);
            if (abortRequest) {
                return -3;
            }
        }
    } else if (timeoutMs >= 1) {
        while (first == nullptr) {
            if (!mCond.wait(mLock, timeoutMs)) {
                return -2;
            }
            if (abortRequest) {
                return -3;
            }
        }
    } else if (first == nullptr) {
        return -2;
    }

    Node* node = first;
    first = node->next;
    if (first == nullptr) {
        last = nullptr;
    }
    count -= 1;
    size -= node->pkt.size + kNodeOverhead;
    *out = node->pkt;
    recycleNodeLocked(node);
    return 0;
}

void PacketQueue::flush() {
    NativeMutexLock lock(mLock);
    freeNodesLocked();
}

void PacketQueue::freeNodesLocked() {
    Node* node = first;
    while (node != nullptr) {
        Node* next = node->next;
        av_packet_unref(&node->pkt);
        recycleNodeLocked(node);
        node = next;
    }
    first = nullptr;
    last = nullptr;
    size = 0;
    count = 0;
}

PacketQueue::Node* PacketQueue::takeNodeLocked() {
    Node* node = mSpareNodes;
    if (node == nullptr) {
        // Only while the queue grows to its working depth.
        return static_cast<Node*>(av_malloc(sizeof(Node)));
    }
    mSpareNodes = node->next;
    mSpareCount -= 1;
    return node;
}

void PacketQueue::recycleNodeLocked(Node* node) {
    if (mSpareCount >= kMaxSpareNodes) {
        av_free(node);
        return;
    }
    node->next = mSpareNodes;
    mSpareNodes = node;
    mSpareCount += 1;
}

void PacketQueue::freeSpareNodesLocked() {
    while (mSpareNodes != nullptr) {
        Node* next = mSpareNodes->next;
        av_free(mSpareNodes);
        mSpareNodes = next;
    }
    mSpareCount = 0;
}

int PacketQueue::getSize() {
    NativeMutexLock lock(mLock);
    return size;
}

int PacketQueue::getCount() {
    NativeMutexLock lock(mLock);
    return count;
}
