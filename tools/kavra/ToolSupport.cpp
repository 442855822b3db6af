#include "ToolSupport.h"

#include <android/log.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

extern "C" {
#include <libavutil/error.h>
}

#include "Source/FFmpegMediaExtractor.h"

namespace tool {
namespace {
std::atomic<bool> gVerbose{false};

const char* priorityLetter(int priority) {
    switch (priority) {
    case ANDROID_LOG_VERBOSE: return "V";
    case ANDROID_LOG_DEBUG: return "D";
    case ANDROID_LOG_INFO: return "I";
    case ANDROID_LOG_WARN: return "W";
    case ANDROID_LOG_ERROR: return "E";
    case ANDROID_LOG_FATAL: return "F";
    default: return "?";
    }
}

void toolLogger(const struct __android_logger_data* data, const char* message) {
    if (gVerbose) {
        fprintf(stderr, "%s/%s: %s\n", priorityLetter(data->priority), data->tag != nullptr ? data->tag : "", message);
    }
}
}  // namespace

void setVerbose(bool verbose) {
    gVerbose = verbose;
    __android_log_set_logger(toolLogger);
    __android_log_set_minimum_priority(verbose ? ANDROID_LOG_VERBOSE : ANDROID_LOG_INFO);
}

int fail(const std::string& what, const std::string& reason) {
    fprintf(stderr, "kavra: %s: %s\n", what.c_str(), reason.c_str());
    return 1;
}

int failDamaged(const std::string& path) {
    return fail(path, "the file is damaged: reading stopped before its end");
}

bool checkInput(const std::string& path, std::string* error) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        *error = strerror(errno);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        *error = "is a directory";
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = "not a regular file";
        return false;
    }
    return true;
}

bool openMedia(const std::string& path, FFmpegMediaExtractor* extractor) {
    std::string error;
    if (!checkInput(path, &error)) {
        fail(path, error);
        return false;
    }
    int ret = extractor->setSource(path.c_str());
    if (ret < 0) {
        fail(path, ffmpegError(ret));
        return false;
    }
    ret = extractor->findStreamInfo();
    if (ret < 0) {
        fail(path, "no stream information: " + ffmpegError(ret));
        return false;
    }
    return true;
}

std::string ffmpegError(int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {0};
    if (av_strerror(code, text, sizeof(text)) < 0) {
        return "error " + std::to_string(code);
    }
    return text;
}

bool parseTimeMs(const std::string& text, long long* ms) {
    long long us = 0;
    if (!parseTimeUs(text, &us)) {
        return false;
    }
    // Half a millisecond rounds up: "1.0005s" is 1001 ms.
    *ms = us >= 0 ? (us + 500) / 1000 : -((-us + 500) / 1000);
    return true;
}

bool parseTimeUs(const std::string& text, long long* us) {
    if (text.empty()) {
        return false;
    }
    auto parseNumber = [](const std::string& s, bool allowFraction, double* out) {
        if (s.empty()) {
            return false;
        }
        bool dot = false;
        for (char c : s) {
            if (c == '.' && allowFraction && !dot) {
                dot = true;
            } else if (c < '0' || c > '9') {
                return false;
            }
        }
        if (s == ".") {
            return false;
        }
        *out = strtod(s.c_str(), nullptr);
        return true;
    };
    double value = 0;
    if (text.find(':') != std::string::npos) {
        // [hh:]mm:ss[.mmm]
        std::vector<std::string> parts;
        size_t start = 0;
        for (size_t pos; (pos = text.find(':', start)) != std::string::npos; start = pos + 1) {
            parts.push_back(text.substr(start, pos - start));
        }
        parts.push_back(text.substr(start));
        if (parts.size() > 3) {
            return false;
        }
        double seconds = 0;
        if (!parseNumber(parts.back(), true, &seconds) || seconds >= 60) {
            return false;
        }
        double total = seconds;
        double unit = 60;
        for (int i = static_cast<int>(parts.size()) - 2; i >= 0; --i) {
            double n = 0;
            if (!parseNumber(parts[i], false, &n)) {
                return false;
            }
            if (i > 0 && n >= 60) {
                return false;
            }
            total += n * unit;
            unit *= 60;
        }
        value = total * 1000.0;
    } else if (text.size() > 2 && text.compare(text.size() - 2, 2, "ms") == 0) {
        if (!parseNumber(text.substr(0, text.size() - 2), true, &value)) {
            return false;
        }
    } else if (text.back() == 's') {
        if (!parseNumber(text.substr(0, text.size() - 1), true, &value)) {
            return false;
        }
        value *= 1000.0;
    } else if (!parseNumber(text, true, &value)) {
        return false;
    }
    // Beyond any media length (and any 64-bit count of microseconds).
    if (value > 1e15) {
        return false;
    }
    // Round to the nearest microsecond: "1.001s" is 1001000 us, not 1000999.
    *us = static_cast<long long>(std::llround(value * 1000.0));
    return true;
}

bool Arguments::has(const std::string& name) const {
    for (const auto& o : options) {
        if (o.first == name) {
            return true;
        }
    }
    return false;
}

std::string Arguments::get(const std::string& name, const std::string& fallback) const {
    for (const auto& o : options) {
        if (o.first == name) {
            return o.second;
        }
    }
    return fallback;
}

bool parseArguments(const std::vector<std::string>& args, const std::vector<std::string>& valued,
                    const std::vector<std::string>& flags, Arguments* out, std::string* error) {
    auto contains = [](const std::vector<std::string>& list, const std::string& s) {
        for (const auto& item : list) {
            if (item == s) {
                return true;
            }
        }
        return false;
    };
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a.size() > 1 && a[0] == '-' && !(a.size() > 1 && (isdigit(static_cast<unsigned char>(a[1]))))) {
            if (contains(flags, a)) {
                out->options.emplace_back(a, "");
            } else if (contains(valued, a)) {
                if (i + 1 >= args.size()) {
                    *error = "option " + a + " needs a value";
                    return false;
                }
                out->options.emplace_back(a, args[++i]);
            } else {
                *error = "unknown option " + a;
                return false;
            }
        } else {
            out->positional.push_back(a);
        }
    }
    return true;
}

Progress::Progress(const char* label) : mLabel(label), mEnabled(isatty(STDERR_FILENO) == 1), mLast(-1) {}

Progress::~Progress() { finish(); }

void Progress::update(int percent) {
    if (!mEnabled || percent == mLast) {
        return;
    }
    mLast = percent;
    const int width = 30;
    int filled = percent * width / 100;
    fprintf(stderr, "\r%s [%.*s%*s] %3d%%", mLabel, filled, "##############################", width - filled, "",
            percent);
    fflush(stderr);
}

void Progress::finish() {
    if (mEnabled && mLast >= 0) {
        fprintf(stderr, "\n");
        mLast = -1;
    }
}

void Json::separate() {
    if (mAfterKey) {
        mAfterKey = false;
        return;
    }
    if (!mFirst.empty()) {
        if (!mFirst.back()) {
            mOut += ", ";
        }
        mFirst.back() = false;
    }
}

Json& Json::beginObject() {
    separate();
    mOut += "{";
    mFirst.push_back(true);
    return *this;
}

Json& Json::endObject() {
    mOut += "}";
    mFirst.pop_back();
    return *this;
}

Json& Json::beginArray(const char* name) {
    if (name != nullptr) {
        key(name);
    }
    separate();
    mOut += "[";
    mFirst.push_back(true);
    return *this;
}

Json& Json::endArray() {
    mOut += "]";
    mFirst.pop_back();
    return *this;
}

Json& Json::key(const char* name) {
    separate();
    appendString(name);
    mOut += ": ";
    mAfterKey = true;
    return *this;
}

Json& Json::value(long long v) {
    separate();
    mOut += std::to_string(v);
    return *this;
}

Json& Json::value(double v) {
    separate();
    if (!std::isfinite(v)) {
        mOut += "null";
        return *this;
    }
    char text[64];
    snprintf(text, sizeof(text), "%.6g", v);
    mOut += text;
    return *this;
}

Json& Json::value(bool v) {
    separate();
    mOut += v ? "true" : "false";
    return *this;
}

Json& Json::null() {
    separate();
    mOut += "null";
    return *this;
}

Json& Json::value(const std::string& v) {
    separate();
    appendString(v);
    return *this;
}

void Json::appendString(const std::string& v) {
    mOut += '"';
    for (unsigned char c : v) {
        switch (c) {
        case '"': mOut += "\\\""; break;
        case '\\': mOut += "\\\\"; break;
        case '\n': mOut += "\\n"; break;
        case '\r': mOut += "\\r"; break;
        case '\t': mOut += "\\t"; break;
        default:
            if (c < 0x20) {
                char esc[8];
                snprintf(esc, sizeof(esc), "\\u%04x", c);
                mOut += esc;
            } else {
                mOut += static_cast<char>(c);
            }
        }
    }
    mOut += '"';
}

}  // namespace tool
