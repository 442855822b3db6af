#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

// Heap allocations of a benchmark program, counted while counting is on and
// attributed to the innermost engine function on the allocating stack.
// Linking AllocationCounter.cpp replaces malloc and its relatives.
namespace benchalloc {

// Who asked for the memory.
enum Owner {
    kOwnerRender,  // renderers, render manager, clock, frame queues, windows
    kOwnerPlayer,
    kOwnerPacketQueue,
    kOwnerDecoder,
    kOwnerDemux,
    kOwnerOther,
    kOwnerNone,  // no engine function on the stack
    kOwnerCount
};
// Counter names, one per owner.
extern const char* const kOwnerCounters[kOwnerCount];

struct Counts {
    uint64_t total = 0;
    uint64_t byOwner[kOwnerCount] = {};
    // Count and "function -> library", most frequent first.
    std::vector<std::pair<uint64_t, std::string>> sites;
};

// Call once before counting: loads what the stack walk needs.
void prime();
// Clears the counts and starts counting.
void start();
void stop();
Counts take();
// Writes the sites per frame to stderr.
void printSites(const char* title, const Counts& counts, int frames);

}  // namespace benchalloc
