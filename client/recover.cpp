#include <lumora/recover.h>

#include <filesystem>
#include <limits>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "client/child_process.h"
#include "client/program.h"

namespace lumora::client {
namespace {

RecoveredTake parseTake(const std::string& line) {
  const auto take = nlohmann::json::parse(line);
  return {.staging = take.at("staging"),
          .path = take.at("path"),
          .frames = take.at("frames"),
          .duration = take.at("duration"),
          .left = take.at("left")};
}

}  // namespace

std::vector<RecoveredTake> recoverTakes(const std::string& folder, const std::string& program) {
  const auto recover =
      std::filesystem::path(findProgram(program)).replace_filename("lumora-recover");
  constexpr double unlimited = std::numeric_limits<double>::infinity();
  ChildProcess child({recover, "", {"--json", std::filesystem::absolute(folder)}, {}});
  std::vector<RecoveredTake> takes;
  while (const auto line = child.nextLine(unlimited)) takes.push_back(parseTake(*line));
  const auto end = child.wait(unlimited);
  if (!end || !end->isClean())
    throw std::runtime_error("the takes in " + folder + " can't be read");
  return takes;
}

}  // namespace lumora::client
