#include "support/LogCapture.h"

#include <android/log.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace kavra::test {

namespace {
std::atomic<LogCapture*> gActive{nullptr};

void captureLogger(const struct __android_logger_data* data, const char* message) {
    LogCapture* capture = gActive.load();
    if (capture != nullptr) {
        capture->append(data->tag, message);
    } else if (getenv("KAVRA_TEST_LOG") != nullptr) {
        fprintf(stderr, "[%d] %s: %s\n", data->priority, data->tag != nullptr ? data->tag : "", message);
    }
}

std::atomic<bool> gEndEngineThreads{false};
thread_local bool tTestThread = false;

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

bool eventually(const std::function<bool()>& done, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
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
    return eventually([&] { return endedThreadAssertions().size() >= count; }, timeoutMs);
}

void LogCapture::append(const char* tag, const char* message) {
    std::lock_guard<std::mutex> lock(mMutex);
    mLines.emplace_back(tag != nullptr ? tag : "", message != nullptr ? message : "");
}

std::vector<std::string> LogCapture::messages(const std::string& tag) const {
    std::lock_guard<std::mutex> lock(mMutex);
    std::vector<std::string> out;
    for (const auto& [lineTag, message] : mLines) {
        if (lineTag == tag) {
            out.push_back(message);
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
    return eventually([&] { return contains(tag, message); }, timeoutMs);
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mLines.clear();
    mEnded.clear();
}

}  // namespace kavra::test
