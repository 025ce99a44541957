#pragma once

// The names of a take's file. The take for "/a/clip.mp4" is written to "/a/clip.mp4.<id>.partial".
// If the take broke off, or the movie can't be renamed to "/a/clip.mp4", the movie is renamed to
// "/a/clip.recovered-<id>.mp4". Pure.

#include <optional>
#include <string>

namespace lumora {

// 8-4-4-4-12 hexadecimal digits, in either case.
bool isUUID(const std::string& text);

std::string stagingPath(const std::string& path, const std::string& id);
std::string recoveryPath(const std::string& path, const std::string& id);
// The path of the frame log that lies beside the movie at `movie`.
std::string frameLogPath(const std::string& movie);

// The recovery path of the file at `staging`. Empty if `staging` is not a staging path.
std::optional<std::string> recoveryPathOf(const std::string& staging);

}  // namespace lumora
