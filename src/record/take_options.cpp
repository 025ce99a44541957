#include "record/take_options.h"

#include "encode/encoder_failure.h"

namespace lumora {
namespace {

constexpr std::int64_t leastBitRate = 250'000;
constexpr std::int64_t mostBitRate = 50'000'000;
constexpr std::int64_t leastSoundBitRate = 32'000;
constexpr std::int64_t mostSoundBitRate = 320'000;
constexpr std::int64_t mostMinimumFree = std::int64_t{1} << 53;  // a double is exact up to here

[[noreturn]] void refuse(const char* key) {
  throw EncoderFailure::message(std::string("recording ") + key + " is invalid");
}

// The integer under `key`, or nullopt without this key. Refuses a value that is no integer from
// `least` to `most`. An integer may have a fraction of 0, as in 90.0.
std::optional<std::int64_t> findInteger(const Json& command, const char* key, std::int64_t least,
                                        std::int64_t most) {
  const Json* value = findValue(command, key);
  if (value == nullptr) return std::nullopt;
  if (!value->is_number()) refuse(key);
  const double number = value->get<double>();
  const bool isInRange =
      number >= static_cast<double>(least) && number <= static_cast<double>(most);
  const auto integer = isInRange ? static_cast<std::int64_t>(number) : 0;
  if (!isInRange || *value != integer) refuse(key);
  return integer;
}

// Whether `key` is there and true.
bool findBoolean(const Json& command, const char* key) {
  const Json* value = findValue(command, key);
  if (value != nullptr && !value->is_boolean()) refuse(key);
  return value != nullptr && value->get<bool>();
}

}  // namespace

TakeOptions TakeOptions::parse(const Json& command, const std::optional<SoundFormat>& ofParent) {
  TakeOptions options;
  const std::string* cadence = findString(command, "cadence");
  if (cadence != nullptr && *cadence == "steady") options.cadence = CadenceRule::steady;
  if (const auto rate = findInteger(command, "bit_rate", leastBitRate, mostBitRate))
    options.bitRate = *rate;
  if (const auto rotation = findInteger(command, "rotation", 0, 270)) {
    if (*rotation % 90 != 0) refuse("rotation");
    options.rotation = static_cast<int>(*rotation);
  }
  if (const Json* value = findValue(command, "on_failure")) {
    if (*value != "keep") refuse("on_failure");
    options.keepsFailed = true;
  }
  options.minimumFree = findInteger(command, "minimum_free", 0, mostMinimumFree);
  options.frameLog = findBoolean(command, "frame_log");
  if (const auto rate = findInteger(command, "sound_bit_rate", leastSoundBitRate, mostSoundBitRate))
    options.soundBitRate = *rate;
  if (findBoolean(command, "sound")) {
    if (!ofParent) throw EncoderFailure::message("recording sound is unavailable");
    options.sound = ofParent;
  }
  return options;
}

}  // namespace lumora
