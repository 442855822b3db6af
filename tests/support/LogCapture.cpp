#include "support/LogCapture.h"

#include <android/log.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace kavra::test {

namespace {
std::atomic<LogCapture*> gActive{nullptr};

// The host logger names untagged lines after the program; a capture records
// them with an empty tag, as they were written.
bool isProgramName(const char* tag) {
    static const std::string name = [] {
        char path[4096] = {0};
        ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 1);
        std::string full = n > 0 ? std::string(path, static_cast<size_t>(n)) : std::string();
        size_t slash = full.rfind('/');
        return slash == std::string::npos ? full : full.substr(slash + 1);
    }();
    return tag != nullptr && name == tag;
}

void captureLogger(const struct __android_logger_data* data, const char* message) {
    LogCapture* capture = gActive.load();
    if (capture != nullptr) {
        const char* tag = data->tag;
        capture->append(data->priority, isProgramName(tag) ? nullptr : tag, message);
    } else if (getenv("KAVRA_TEST_LOG") != nullptr) {
        fprintf(stderr, "[%d] %s: %s\n", data->priority, data->tag != nullptr ? data->tag : "", message);
    }
}

std::atomic<bool> gEndEngineThreads{false};
thread_local bool tTestThread = false;

// Polls `done` every millisecond until it holds or `timeoutMs` has passed.
template <typename Done>
bool waitUntil(Done done, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void throwingAborter(const char* message) {
    if (gEndEngineThreads.load() && !tTestThread) {
        LogCapture* capture = gActive.load();
        if (capture != nullptr) {
            capture->appendEnded(message != nullptr ? message : "");
        }
        pthread_exit(nullptr);
    }
    throw LogAssertion{message != nullptr ? message : ""};
}

// Installed once for the whole test program: lines go to the active
// capture (or nowhere), assertions throw instead of aborting.
struct Install {
    Install() {
        __android_log_set_logger(captureLogger);
        __android_log_set_aborter(throwingAborter);
        __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
    }
} gInstall;
}  // namespace

LogCapture::LogCapture() {
    tTestThread = true;
    gActive.store(this);
}

LogCapture::~LogCapture() {
    gEndEngineThreads.store(false);
    LogCapture* self = this;
    gActive.compare_exchange_strong(self, nullptr);
}

void LogCapture::endEngineThreadsOnAssertion(bool enable) { gEndEngineThreads.store(enable); }

void LogCapture::appendEnded(const char* message) {
    std::lock_guard<std::mutex> lock(mMutex);
    mEnded.push_back(message);
}

std::vector<std::string> LogCapture::endedThreadAssertions() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mEnded;
}

bool LogCapture::waitForEndedThreads(size_t count, int timeoutMs) const {
    return waitUntil([&] { return endedThreadAssertions().size() >= count; }, timeoutMs);
}

void LogCapture::append(int priority, const char* tag, const char* message) {
    std::lock_guard<std::mutex> lock(mMutex);
    mLines.push_back(Line{priority, tag != nullptr ? tag : "", message != nullptr ? message : ""});
}

std::vector<LogCapture::Line> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(mMutex);
    return mLines;
}

std::vector<std::string> LogCapture::messages(const std::string& tag) const {
    std::vector<std::string> out;
    for (const Line& l : lines()) {
        if (l.tag == tag) {
            out.push_back(l.message);
        }
    }
    return out;
}

int LogCapture::count(const std::string& tag, const std::string& message) const {
    std::vector<std::string> all = messages(tag);
    return static_cast<int>(std::count(all.begin(), all.end(), message));
}

bool LogCapture::contains(const std::string& tag, const std::string& message) const { return count(tag, message) > 0; }

bool LogCapture::waitFor(const std::string& tag, const std::string& message, int timeoutMs) const {
    return waitUntil([&] { return contains(tag, message); }, timeoutMs);
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mLines.clear();
    mEnded.clear();
}

}  // namespace kavra::test
