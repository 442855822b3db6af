#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace kavra::test {

// Polls `done` every millisecond until it holds; false when `timeoutMs`
// passed first.
bool eventually(const std::function<bool()>& done, int timeoutMs);

// What __android_log_assert raises inside tests instead of ending the
// process. It is thrown by the aborter on the asserting thread, so a test
// catches it on that thread (EXPECT_THROW or try/catch).
struct LogAssertion {
    std::string message;
};

// Captures every platform log line written while it is alive (verbose
// included), so tests can assert on exact messages. One instance at a time.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    // Messages of one tag, in order.
    std::vector<std::string> messages(const std::string& tag) const;
    bool contains(const std::string& tag, const std::string& message) const;
    int count(const std::string& tag, const std::string& message) const;
    // Waits (bounded) until a line with this tag and message was written.
    bool waitFor(const std::string& tag, const std::string& message, int timeoutMs) const;
    void clear();

    // An assertion on a thread the engine started cannot be caught by a
    // test: it would throw out of that thread's body. While this is on, an
    // assertion on any thread not marked as a test thread is recorded (see
    // endedThreadAssertions) and ends that thread with pthread_exit, which
    // unwinds it and leaves it joinable. Test threads keep throwing. The
    // capture's own thread is a test thread; off again when the capture
    // ends.
    void endEngineThreadsOnAssertion(bool enable);
    // Messages of assertions that ended a thread, in order.
    std::vector<std::string> endedThreadAssertions() const;
    // Waits (bounded) until `count` assertions have ended threads.
    bool waitForEndedThreads(size_t count, int timeoutMs) const;

    // Called by the logger and the aborter installed for the test program.
    void append(const char* tag, const char* message);
    void appendEnded(const char* message);

private:
    mutable std::mutex mMutex;
    std::vector<std::pair<std::string, std::string>> mLines;  // tag, message
    std::vector<std::string> mEnded;
};

}  // namespace kavra::test
