// Counts heap allocations in a benchmark program: malloc and its relatives
// are replaced by versions that, while counting is on, record each call
// with the engine function on the allocating stack and the library that
// allocated, so that a benchmark can say who allocates per frame.

#include "AllocationCounter.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <errno.h>
#include <execinfo.h>
#include <malloc.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>


extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* p, size_t size);
void* __libc_memalign(size_t alignment, size_t size);
void __libc_free(void* p);
}

namespace benchalloc {

const char* const kOwnerCounters[kOwnerCount] = {
    "allocs_queues_and_renderers", "allocs_player", "allocs_packet_queue_nodes", "allocs_decoder",
    "allocs_demux", "allocs_other_engine", "allocs_ffmpeg_own_threads"};

namespace {

// Libraries an allocation is attributed to.
enum Library { kLibOther, kLibEngine, kLibAvcodec, kLibAvformat, kLibAvutil, kLibSws, kLibBench, kLibCount };
const char* const kLibraryNames[kLibCount] = {"other", "engine", "libavcodec", "libavformat",
                                              "libavutil", "libsw*", "bench"};

std::atomic<bool> gCounting{false};
std::atomic<uint64_t> gAllocations{0};
thread_local bool tInHook = false;

// Which library a code address belongs to; cached per address.
constexpr size_t kPcSlots = 16384;
std::atomic<uintptr_t> gPcKeys[kPcSlots];
std::atomic<int> gPcLibrary[kPcSlots];

Library classifyPath(const char* path) {
    if (path == nullptr) {
        return kLibOther;
    }
    if (strstr(path, "libkavra_gallery_player") != nullptr) return kLibEngine;
    if (strstr(path, "libavcodec") != nullptr) return kLibAvcodec;
    if (strstr(path, "libavformat") != nullptr) return kLibAvformat;
    if (strstr(path, "libavutil") != nullptr) return kLibAvutil;
    if (strstr(path, "libswscale") != nullptr || strstr(path, "libswresample") != nullptr) return kLibSws;
    const char* slash = strrchr(path, '/');
    if (strcmp(slash != nullptr ? slash + 1 : path, program_invocation_short_name) == 0) return kLibBench;
    return kLibOther;  // libc, libstdc++, ...
}

Library libraryOf(uintptr_t pc) {
    size_t slot = (pc >> 4) % kPcSlots;
    for (size_t probe = 0; probe < kPcSlots; ++probe, slot = (slot + 1) % kPcSlots) {
        uintptr_t key = gPcKeys[slot].load();
        if (key == pc) {
            return static_cast<Library>(gPcLibrary[slot].load());
        }
        if (key == 0) {
            Dl_info info;
            Library lib = dladdr(reinterpret_cast<void*>(pc), &info) != 0 ? classifyPath(info.dli_fname) : kLibOther;
            uintptr_t expected = 0;
            if (gPcKeys[slot].compare_exchange_strong(expected, pc) || expected == pc) {
                gPcLibrary[slot].store(lib);
            }
            return lib;
        }
    }
    return kLibOther;
}

// One row of the attribution: the innermost engine function on the stack
// (0: none) and the innermost FFmpeg library below it (or the engine).
struct Site {
    std::atomic<uintptr_t> key{0};
    std::atomic<uint64_t> count{0};
};
constexpr size_t kSiteSlots = 1024;
Site gSites[kSiteSlots];

void recordSite(uintptr_t engineFunction, Library allocator) {
    uintptr_t key = (engineFunction << 3) | static_cast<uintptr_t>(allocator);
    if (key == 0) {
        key = kLibOther;
    }
    size_t slot = (key >> 3) % kSiteSlots;
    for (size_t probe = 0; probe < kSiteSlots; ++probe, slot = (slot + 1) % kSiteSlots) {
        uintptr_t current = gSites[slot].key.load();
        if (current == 0) {
            uintptr_t expected = 0;
            if (!gSites[slot].key.compare_exchange_strong(expected, key) && expected != key) {
                continue;
            }
            current = key;
        }
        if (current == key) {
            gSites[slot].count += 1;
            return;
        }
    }
}

void countAllocation() {
    if (!gCounting.load(std::memory_order_relaxed) || tInHook) {
        return;
    }
    tInHook = true;
    gAllocations += 1;
    void* frames[48];
    int depth = backtrace(frames, 48);
    Library allocator = kLibOther;
    uintptr_t engineFunction = 0;
    // Frame 0 is this hook's caller in this program.
    for (int i = 1; i < depth; ++i) {
        uintptr_t pc = reinterpret_cast<uintptr_t>(frames[i]);
        Library lib = libraryOf(pc);
        if (allocator == kLibOther && lib != kLibOther && lib != kLibAvutil && lib != kLibBench) {
            allocator = lib;
        }
        if (lib == kLibEngine) {
            Dl_info info;
            if (dladdr(frames[i], &info) != 0 && info.dli_saddr != nullptr) {
                engineFunction = reinterpret_cast<uintptr_t>(info.dli_saddr);
                // A standard-library template instantiated in the engine
                // (a container growing): the engine function that called it
                // is the one to name.
                if (info.dli_sname != nullptr &&
                    (strncmp(info.dli_sname, "_ZNSt", 5) == 0 || strncmp(info.dli_sname, "_ZSt", 4) == 0)) {
                    continue;
                }
            }
            break;
        }
    }
    recordSite(engineFunction, allocator);
    tInHook = false;
}


Owner ownerOf(const std::string& function) {
    if (function.empty()) {
        return kOwnerNone;
    }
    for (const char* prefix : {"VideoRender", "AudioRender", "RenderManager", "Timer", "FrameBufferQueue",
                               "MemoryNativeWindow", "JniPcmSink"}) {
        if (function.rfind(prefix, 0) == 0) {
            return kOwnerRender;
        }
    }
    if (function.rfind("KavraMediaPlayer", 0) == 0) {
        return kOwnerPlayer;
    }
    if (function.rfind("PacketQueue", 0) == 0) {
        return kOwnerPacketQueue;
    }
    for (const char* prefix : {"FFmpegMediaCodec", "MediaCodec", "FFmpegDecoder", "Decoder", "MediaFormat"}) {
        if (function.rfind(prefix, 0) == 0) {
            return kOwnerDecoder;
        }
    }
    if (function.rfind("FFmpegMediaExtractor", 0) == 0 || function.rfind("KavraMediaDecoder", 0) == 0) {
        return kOwnerDemux;
    }
    return kOwnerOther;
}


}  // namespace

void start() {
    gAllocations = 0;
    for (Site& site : gSites) {
        site.key = 0;
        site.count = 0;
    }
    gCounting = true;
}

void stop() { gCounting = false; }

Counts take() {
    Counts counts;
    counts.total = gAllocations.load();
    for (Site& site : gSites) {
        uintptr_t key = site.key.load();
        if (key == 0 || site.count.load() == 0) {
            continue;
        }
        uintptr_t function = key >> 3;
        int lib = static_cast<int>(key & 7);
        std::string name;
        Dl_info info;
        if (function != 0 && dladdr(reinterpret_cast<void*>(function), &info) != 0 && info.dli_sname != nullptr) {
            int status = 0;
            char* demangled = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, &status);
            name = status == 0 && demangled != nullptr ? demangled : info.dli_sname;
            free(demangled);
        }
        counts.byOwner[ownerOf(name)] += site.count.load();
        if (name.empty()) {
            name = "(no engine frame: FFmpeg's own threads, or this program)";
        }
        counts.sites.emplace_back(site.count.load(), name + " -> " + kLibraryNames[lib]);
    }
    std::sort(counts.sites.rbegin(), counts.sites.rend());
    return counts;
}

void printSites(const char* title, const Counts& counts, int frames) {
    fprintf(stderr, "%s: %.2f allocations per frame\n", title, static_cast<double>(counts.total) / frames);
    for (const auto& site : counts.sites) {
        fprintf(stderr, "  %8.3f /frame  %s\n", static_cast<double>(site.first) / frames, site.second.c_str());
    }
}

void prime() {
    // backtrace() loads its unwinder on first use; not while counting.
    void* warm[4];
    backtrace(warm, 4);
}

}  // namespace benchalloc

extern "C" {
void* malloc(size_t size) {
    benchalloc::countAllocation();
    return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) {
    benchalloc::countAllocation();
    return __libc_calloc(count, size);
}
void* realloc(void* p, size_t size) {
    benchalloc::countAllocation();
    return __libc_realloc(p, size);
}
void free(void* p) { __libc_free(p); }
int posix_memalign(void** out, size_t alignment, size_t size) {
    benchalloc::countAllocation();
    void* p = __libc_memalign(alignment, size);
    if (p == nullptr) {
        return ENOMEM;
    }
    *out = p;
    return 0;
}
void* aligned_alloc(size_t alignment, size_t size) {
    benchalloc::countAllocation();
    return __libc_memalign(alignment, size);
}
void* memalign(size_t alignment, size_t size) {
    benchalloc::countAllocation();
    return __libc_memalign(alignment, size);
}
}

