#include "client/take_command.h"

#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>

#include "client/records.h"

namespace lumora::client {
namespace {

using Json = nlohmann::json;

// The limits of docs/protocol.md.
void checkTime(Uptime::time_point time) {
  const Seconds ago = Uptime::now() - time;
  if (ago <= Seconds(30) && ago >= Seconds(-0.05)) return;  // never true for NaN
  throw std::invalid_argument(
      "a take starts and stops at most 30 s ago or 50 ms from now, on the uptime clock");
}

double seconds(Uptime::time_point time) { return time.time_since_epoch().count(); }

std::string text(const Json& command) {
  std::string json;
  try {
    json = command.dump();
  } catch (const Json::exception&) {
    throw std::invalid_argument("the path of a take must be UTF-8");
  }
  if (json.size() > maximumCommandBytes)
    throw std::invalid_argument("the path of a take is too long");
  return json;
}

}  // namespace

std::string randomTakeID() {
  static constexpr char digits[] = "0123456789ABCDEF";
  std::random_device random;
  std::string id = "xxxxxxxx-xxxx-4xxx-8xxx-xxxxxxxxxxxx";
  for (char& character : id) {
    if (character == 'x') character = digits[random() % 16];
  }
  return id;
}

std::string startCommand(const std::string& id, const TakeOptions& options,
                         Uptime::time_point startedAt) {
  checkTime(startedAt);
  Json command = {{"type", "record_start"},
                  {"id", id},
                  {"path", options.path.string()},
                  {"started_at", seconds(startedAt)},
                  {"resolution", toText(options.profile.size)},
                  {"target_fps", static_cast<int>(options.profile.rate)}};
  if (options.steady) command["cadence"] = "steady";
  if (options.keepFailed) command["on_failure"] = "keep";
  if (options.minimumFree) command["minimum_free"] = *options.minimumFree;
  if (options.bitRate) command["bit_rate"] = *options.bitRate;
  if (options.rotation != 0) command["rotation"] = options.rotation;
  if (options.frameLog) command["frame_log"] = true;
  if (options.sound) command["sound"] = true;
  if (options.soundBitRate) command["sound_bit_rate"] = *options.soundBitRate;
  return text(command);
}

std::string stopCommand(const std::string& id, Uptime::time_point stoppedAt) {
  checkTime(stoppedAt);
  return text({{"type", "record_stop"}, {"id", id}, {"stopped_at", seconds(stoppedAt)}});
}

}  // namespace lumora::client
