#include <lumora/recover.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>

#include "client/child_process.h"
#include "client/program.h"

namespace lumora::client {
namespace {

RecoveredTake parseTake(const std::string& line) {
  const auto take = nlohmann::json::parse(line);
  return {.staging = take.at("staging").get<std::string>(),
          .path = take.at("path").get<std::string>(),
          .frames = take.at("frames"),
          .duration = Seconds(take.at("duration").get<double>()),
          .left = take.at("left")};
}

}  // namespace

std::vector<RecoveredTake> recoverTakes(const std::filesystem::path& folder,
                                        const std::filesystem::path& program) {
  const auto recover = findProgram(program).replace_filename("lumora-recover");
  constexpr Seconds day(24 * 60 * 60);  // the longest wait
  ChildProcess child({recover, "", {"--json", std::filesystem::absolute(folder)}, {}});
  std::vector<RecoveredTake> takes;
  while (child.hasOutput()) {
    if (const auto line = child.nextLine(day)) takes.push_back(parseTake(*line));
  }
  std::optional<Exited> end;
  while (!(end = child.wait(day))) continue;
  // The status is unknown (-1) if the application ignores SIGCHLD. Then this checks at least that
  // the folder can be read.
  std::error_code unreadable;
  const bool isUnknown = end->status == -1 && end->signal == 0;
  if (isUnknown) std::filesystem::directory_iterator(folder, unreadable);
  if (unreadable || (!isUnknown && !end->isClean()))
    throw std::runtime_error("the takes in " + folder.string() + " can't be read");
  return takes;
}

}  // namespace lumora::client
