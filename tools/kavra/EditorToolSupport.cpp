#include "EditorToolSupport.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

#include "ToolSupport.h"

namespace tool {

bool openVideoItem(const std::string& path, VideoItem& item, std::string* error) {
    if (!checkInput(path, error)) {
        return false;
    }
    int ret = item.setSource(path.c_str(), false);
    if (ret >= 0) {
        return true;
    }
    // The item answers -1 when the file opened but holds no video it can
    // decode, and FFmpeg's own code when the file did not open.
    *error = ret == -1 ? "no decodable video stream" : ffmpegError(ret);
    return false;
}

bool parseSize(const std::string& text, int* width, int* height) {
    size_t x = text.find('x');
    if (x == std::string::npos || x == 0 || x + 1 >= text.size()) {
        return false;
    }
    for (size_t i = 0; i < text.size(); ++i) {
        if (i != x && (text[i] < '0' || text[i] > '9')) {
            return false;
        }
    }
    if (x > 5 || text.size() - x - 1 > 5) {
        return false;  // beyond any picture size
    }
    *width = atoi(text.substr(0, x).c_str());
    *height = atoi(text.substr(x + 1).c_str());
    return *width >= 1 && *height >= 1;
}

void defaultThumbnailSize(int displayWidth, int displayHeight, int* width, int* height) {
    const int kWidth = 160;
    *width = kWidth;
    if (displayWidth < 1 || displayHeight < 1) {
        *height = kWidth * 9 / 16;
        return;
    }
    int h = static_cast<int>(std::lround(static_cast<double>(kWidth) * displayHeight / displayWidth / 2.0)) * 2;
    *height = h < 2 ? 2 : h;
}

bool checkWritable(const std::string& path, std::string* error) {
    struct stat st;
    if (stat(path.c_str(), &st) == 0) {
        if (S_ISDIR(st.st_mode)) {
            *error = "is a directory";
            return false;
        }
        if (access(path.c_str(), W_OK) != 0) {
            *error = strerror(errno);
            return false;
        }
        return true;
    }
    size_t slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
    if (stat(dir.c_str(), &st) != 0) {
        *error = strerror(errno);
        return false;
    }
    if (!S_ISDIR(st.st_mode)) {
        *error = strerror(ENOTDIR);
        return false;
    }
    if (access(dir.c_str(), W_OK | X_OK) != 0) {
        *error = strerror(errno);
        return false;
    }
    return true;
}

}  // namespace tool
