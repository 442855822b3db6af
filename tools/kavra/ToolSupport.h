#pragma once

#include <cstdio>
#include <string>
#include <vector>

class FFmpegMediaExtractor;

// Small helpers shared by the kavra subcommands.
namespace tool {

// Engine log lines go to stderr only when -v was given.
void setVerbose(bool verbose);

// Prints "kavra: <what>: <reason>" on stderr and returns exit status 1.
int fail(const std::string& what, const std::string& reason);

// Whether `path` can be read as media input: it must exist and be a
// regular file. Anything else (a directory, a FIFO, a device, a socket) is
// refused before it is opened: a FIFO without a writer would block the open
// for ever, and one with a writer would be consumed by the first reader.
// False with a one-line reason in `error`.
bool checkInput(const std::string& path, std::string* error);

// The one-line answer (exit status 1) for a file whose reading stopped at
// damage before its end: what was made from it would be incomplete.
int failDamaged(const std::string& path);

// Opens and probes a media file with the engine's extractor. On failure
// prints the one-line error naming the file and returns false.
bool openMedia(const std::string& path, FFmpegMediaExtractor* extractor);

// FFmpeg's text for a negative error code.
std::string ffmpegError(int code);

// Parses a time: "1500" or "1500ms" (milliseconds), "1.5s" (seconds),
// "mm:ss.mmm" or "hh:mm:ss.mmm". False for anything else.
//
// Every command reads a time in the file's own timeline: the presentation
// times that ffprobe shows, so a file whose first frame is at 1.4 s has
// nothing before 1.4 s. parseTimeUs keeps the time to the microsecond (for
// the trimmer, which cuts at frame precision); parseTimeMs rounds it to the
// nearest millisecond (for the editor calls, which take milliseconds).
bool parseTimeUs(const std::string& text, long long* us);
bool parseTimeMs(const std::string& text, long long* ms);

// Splits arguments into positionals and "--name value" / "--flag" options.
// `flags` names the options that take no value. False (with a message in
// `error`) for an unknown option or a missing value.
struct Arguments {
    std::vector<std::string> positional;
    std::vector<std::pair<std::string, std::string>> options;
    bool has(const std::string& name) const;
    std::string get(const std::string& name, const std::string& fallback = "") const;
};
bool parseArguments(const std::vector<std::string>& args, const std::vector<std::string>& valued,
                    const std::vector<std::string>& flags, Arguments* out, std::string* error);

// A one-line progress display on stderr, drawn only when stderr is a terminal.
class Progress {
public:
    explicit Progress(const char* label);
    ~Progress();
    void update(int percent);
    void finish();

private:
    const char* mLabel;
    bool mEnabled;
    int mLast;
};

// Minimal JSON writer: values are appended in order, commas handled.
class Json {
public:
    Json& beginObject();
    Json& endObject();
    Json& beginArray(const char* key = nullptr);
    Json& endArray();
    Json& key(const char* name);
    Json& value(long long v);
    Json& value(double v);
    Json& value(const std::string& v);
    Json& value(bool v);
    Json& null();
    Json& field(const char* name, long long v) { return key(name).value(v); }
    Json& field(const char* name, int v) { return key(name).value(static_cast<long long>(v)); }
    Json& field(const char* name, double v) { return key(name).value(v); }
    Json& field(const char* name, const std::string& v) { return key(name).value(v); }
    Json& field(const char* name, bool v) { return key(name).value(v); }
    const std::string& str() const { return mOut; }

private:
    void separate();
    void appendString(const std::string& v);
    std::string mOut;
    std::vector<bool> mFirst;
    bool mAfterKey = false;
};

}  // namespace tool
