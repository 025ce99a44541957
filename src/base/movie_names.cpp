#include "base/movie_names.h"

#include <cctype>
#include <filesystem>
#include <string_view>

namespace lumora {
namespace {

constexpr std::size_t uuidLength = 36;
constexpr std::string_view stagingEnding = ".partial";

}  // namespace

bool isUUID(const std::string& text) {
  if (text.size() != uuidLength) return false;
  for (std::size_t i = 0; i < uuidLength; ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const auto character = static_cast<unsigned char>(text[i]);
    if (dash ? character != '-' : std::isxdigit(character) == 0) return false;
  }
  return true;
}

std::string stagingPath(const std::string& path, const std::string& id) {
  return path + "." + id + std::string(stagingEnding);
}

std::string recoveryPath(const std::string& path, const std::string& id) {
  const std::filesystem::path wanted(path);
  return wanted.parent_path() / (wanted.stem().string() + ".recovered-" + id + ".mp4");
}

std::string frameLogPath(const std::string& movie) { return movie + ".frames.csv"; }

std::optional<std::string> recoveryPathOf(const std::string& staging) {
  constexpr std::size_t added = 1 + uuidLength + stagingEnding.size();
  if (staging.size() < added) return std::nullopt;
  const std::string path = staging.substr(0, staging.size() - added);
  const std::string id = staging.substr(path.size() + 1, uuidLength);
  const bool fits = std::filesystem::path(path).extension() == ".mp4" && isUUID(id) &&
                    staging == stagingPath(path, id);
  return fits ? std::optional(recoveryPath(path, id)) : std::nullopt;
}

}  // namespace lumora
