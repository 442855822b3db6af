// Work done once when the library is loaded, before any engine object
// exists, whoever loads it (the app's Java side or the command-line tool).

extern "C" {
#include <libavutil/log.h>
}

namespace {
// FFmpeg's own console logging is silenced: the engine reports what matters
// through the platform log, and a gallery app has no console.
__attribute__((constructor)) void silenceFFmpegLog() { av_log_set_level(AV_LOG_QUIET); }
}  // namespace
