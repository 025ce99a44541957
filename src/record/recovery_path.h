#pragma once

#include <filesystem>
#include <string>

namespace lumora {

// "/a/clip.mp4" and an id give "/a/clip.recovered-<id>.mp4".
inline std::string recoveryPath(const std::string& path, const std::string& id) {
  const std::filesystem::path wanted(path);
  return wanted.parent_path() / (wanted.stem().string() + ".recovered-" + id + ".mp4");
}

}  // namespace lumora
