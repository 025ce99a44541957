#include "client/take_command.h"

#include <algorithm>
#include <array>
#include <nlohmann/json.hpp>
#include <random>
#include <stdexcept>
#include <type_traits>

#include "client/records.h"

namespace lumora::client {
namespace {

using Json = nlohmann::json;

template <typename Number>
void checkRange(const char* name, const std::optional<Number>& value,
                std::type_identity_t<Number> least, std::type_identity_t<Number> most) {
  if (!value || (*value >= least && *value <= most)) return;
  throw std::invalid_argument(std::string(name) + " must be an integer from " +
                              std::to_string(least) + " to " + std::to_string(most));
}

constexpr std::size_t maximumPathBytes = 3000;

std::invalid_argument tooLong() { return std::invalid_argument("the path of a take is too long"); }

// The limits of docs/protocol.md.
void check(const TakeOptions& options) {
  if (!options.path.is_absolute() || !options.path.string().ends_with(".mp4"))
    throw std::invalid_argument("the path of a take must be absolute and end in \".mp4\"");
  if (options.path.string().size() > maximumPathBytes) throw tooLong();
  checkRange("minimumFree", options.minimumFree, 0, std::uint64_t{1} << 53);
  checkRange("bitRate", options.bitRate, 250'000, 50'000'000);
  checkRange("soundBitRate", options.soundBitRate, 32'000, 320'000);
  constexpr std::array rotations = {0, 90, 180, 270};
  if (std::ranges::find(rotations, options.rotation) == rotations.end())
    throw std::invalid_argument("rotation must be 0, 90, 180 or 270");
}

// The limits of docs/protocol.md for times.
void checkTime(Uptime::time_point time) {
  const Seconds ago = Uptime::now() - time;
  // A negative `time` is before the machine's start. A NaN is refused: no comparison with it is
  // true.
  if (time >= Uptime::time_point() && ago <= Seconds(30) && ago >= -mostAhead) return;
  throw std::invalid_argument(
      "a take's start and stop must be at most 30 s ago or 50 ms ahead, on the uptime clock");
}

double seconds(Uptime::time_point time) { return time.time_since_epoch().count(); }

std::string text(const Json& command) {
  std::string json;
  try {
    json = command.dump();
  } catch (const Json::exception&) {
    throw std::invalid_argument("the path of a take must be UTF-8");
  }
  if (json.size() > maximumCommandBytes) throw tooLong();
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
  check(options);
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
