#pragma once

#include <string>

#include "editor/VideoItem.h"

// Helpers shared by the editor subcommands (thumbs, keyframe, snapshot).
namespace tool {

// Opens `path` as an editor item. False with a one-line reason in `error`
// for a missing file, anything but a regular file, something that is not
// media, or media without a decodable video stream.
bool openVideoItem(const std::string& path, VideoItem& item, std::string* error);

// Parses "WxH" with both at least 1.
bool parseSize(const std::string& text, int* width, int* height);

// The display size scaled to 160 pixels wide, aspect kept, height even.
void defaultThumbnailSize(int displayWidth, int displayHeight, int* width, int* height);

// False with a reason when `path` cannot be created or replaced: a
// directory, or a file in a directory that does not exist or cannot be
// written.
bool checkWritable(const std::string& path, std::string* error);

}  // namespace tool
