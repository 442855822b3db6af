// Compiled into every benchmark program: the engine's log lines are not
// wanted between benchmark results, so they go nowhere.

#include <android/log.h>

namespace {
void discard(const struct __android_logger_data*, const char*) {}

struct QuietEngineLog {
    QuietEngineLog() { __android_log_set_logger(discard); }
} gQuietEngineLog;
}  // namespace
