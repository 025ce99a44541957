#include <lumora/events.h>

#include <nlohmann/json.hpp>
#include <utility>

namespace lumora::client {
namespace {

using Json = nlohmann::json;

// The value of `key`. Empty if the key is missing, or the value has another type.
template <typename Value>
std::optional<Value> find(const Json& event, const char* key) {
  const auto found = event.find(key);
  constexpr bool isNumber = std::is_arithmetic_v<Value>;
  if (found == event.end() || !(isNumber ? found->is_number() : found->is_string())) return {};
  return found->template get<Value>();
}

// Sets `value`, unless the key is missing or its value has another type.
template <typename Value>
void read(const Json& event, const char* key, Value& value) {
  if (auto found = find<Value>(event, key)) value = *std::move(found);
}

Ready readReady(const Json& event) {
  Ready ready;
  read(event, "port", ready.port);
  return ready;
}

Stats readStats(const Json& event) {
  Stats stats;
  read(event, "clients", stats.clients);
  read(event, "pending_hello", stats.waitingClients);
  read(event, "encoded_frames", stats.encodedFrames);
  read(event, "dropped_raw", stats.droppedFrames);
  read(event, "dropped_peers", stats.droppedClients);
  read(event, "encode_ms", stats.encodeMilliseconds);
  if (!event.contains("credit_drops")) return stats;
  Stats::Delivery delivery;
  read(event, "credit_drops", delivery.creditDrops);
  read(event, "send_drops", delivery.sendDrops);
  read(event, "resync_wait_drops", delivery.resyncDrops);
  read(event, "ack_rtt_ms", delivery.roundTripMilliseconds);
  stats.delivery = delivery;
  return stats;
}

std::optional<TakeState> takeState(const std::string& name) {
  using enum TakeState;
  for (const auto& [known, state] : {std::pair{"starting", starting},
                                     {"recording", recording},
                                     {"finishing", finishing},
                                     {"saved", saved},
                                     {"failed", failed}}) {
    if (name == known) return state;
  }
  return std::nullopt;
}

std::optional<Recording> readRecording(const Json& event) {
  Recording recording;
  std::string name;
  read(event, "state", name);
  const auto state = takeState(name);
  if (!state) return std::nullopt;
  recording.state = *state;
  read(event, "id", recording.id);
  read(event, "path", recording.path);
  read(event, "error", recording.error);
  read(event, "duration", recording.duration);
  read(event, "frames", recording.frames);
  read(event, "dropped", recording.dropped);
  read(event, "throttled", recording.throttled);
  recording.framesInMovie = find<std::uint64_t>(event, "frames_in_movie");
  recording.secondsLeft = find<double>(event, "seconds_left");
  read(event, "stopped_for", recording.stoppedFor);
  read(event, "frame_log_error", recording.frameLogError);
  Recording::Kept kept;
  read(event, "kept_path", kept.name);
  read(event, "kept_frames", kept.frames);
  read(event, "kept_duration", kept.duration);
  if (!kept.name.empty()) recording.kept = std::move(kept);
  return recording;
}

}  // namespace

Event parseEvent(std::string line) {
  Event event{std::move(line), {}};
  const Json json = Json::parse(event.line, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) return event;
  std::string type;
  read(json, "type", type);
  if (type == "ready") event.what = readReady(json);
  if (type == "stats") event.what = readStats(json);
  if (type == "recording") {
    if (auto recording = readRecording(json)) event.what = *std::move(recording);
  }
  if (type == "error") {
    Error error;
    read(json, "message", error.message);
    event.what = std::move(error);
  }
  return event;
}

}  // namespace lumora::client
