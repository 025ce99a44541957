// Finishes takes that a crash or a power cut has interrupted: the named ones, and all in the named
// folders. Prints a line for each.

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <system_error>

#include "base/json.h"
#include "base/text.h"
#include "mp4/movie_recovery.h"

namespace {

using namespace lumora;

constexpr const char* usage = "usage: lumora-recover [--json] FOLDER|FILE...\n";

std::string jsonOf(const RecoveredTake& take) {
  const Json line = {{"staging", take.staging},
                     {"path", take.path},
                     {"frames", take.frames},
                     {"duration", take.duration},
                     {"left", take.left}};
  return line.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// "/a/clip.recovered-<id>.mp4: 12.5 s, 750 frames", or why the file keeps its name.
std::string wordsOf(const RecoveredTake& take) {
  if (!take.left.empty()) return take.staging + ": keeps its name, because " + take.left;
  char figures[64];
  std::snprintf(figures, sizeof figures, "%.1f s, %llu frames", take.duration,
                static_cast<unsigned long long>(take.frames));
  return take.path + ": " + figures;
}

// Throws std::system_error if there is no such file, or for a folder that can't be read.
void recover(const std::filesystem::path& path, bool asJson) {
  if (!exists(path)) throw std::system_error(ENOENT, std::generic_category());
  std::vector<std::string> files = {path};
  if (std::filesystem::is_directory(path)) files = findStagingFiles(path);
  for (const std::string& file : files) {
    const RecoveredTake take = recoverTake(file, std::time(nullptr));
    std::printf("%s\n", (asJson ? jsonOf(take) : wordsOf(take)).c_str());
    std::fflush(stdout);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool asJson = std::erase(arguments, "--json") > 0;
  const auto isOption = [](const std::string& word) { return word.starts_with("--"); };
  if (arguments.empty() || std::ranges::any_of(arguments, isOption)) {
    std::fputs(usage, stderr);
    return 2;
  }
  int status = 0;
  for (const std::string& argument : arguments) {
    try {
      recover(std::filesystem::absolute(argument), asJson);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "%s: %s\n", argument.c_str(), reasonOf(error).c_str());
      status = 1;
    }
  }
  return status;
}
