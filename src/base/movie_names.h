#pragma once

// The names of a take's file. "/a/clip.mp4" is "/a/clip.mp4.<id>.partial" while it is written, and
// "/a/clip.recovered-<id>.mp4" if it can't get its own name. Pure.

#include <optional>
#include <string>

namespace lumora {

// 8-4-4-4-12 hexadecimal digits, in either case.
bool isUUID(const std::string& text);

std::string stagingPath(const std::string& path, const std::string& id);
std::string recoveryPath(const std::string& path, const std::string& id);
// Of the log of the frames of the movie that now has this path.
std::string frameLogPath(const std::string& movie);

// The recovery path for a file of this staging path; nothing for any other path.
std::optional<std::string> recoveryPathOf(const std::string& staging);

}  // namespace lumora
