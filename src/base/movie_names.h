#pragma once

// The names of a take's file. "/a/clip.mp4" is "/a/clip.mp4.<id>.partial" while it is written, and
// "/a/clip.recovered-<id>.mp4" if the take broke off or the movie can't get its own name. Pure.

#include <optional>
#include <string>

namespace lumora {

// 8-4-4-4-12 hexadecimal digits, in either case.
bool isUUID(const std::string& text);

std::string stagingPath(const std::string& path, const std::string& id);
std::string recoveryPath(const std::string& path, const std::string& id);
// The path of the frame log of a movie whose path is now `movie`.
std::string frameLogPath(const std::string& movie);

// The recovery path of the file at `staging`. Empty if that is not a staging path.
std::optional<std::string> recoveryPathOf(const std::string& staging);

}  // namespace lumora
