#include <lumora/events.h>

#include <limits>
#include <nlohmann/json.hpp>
#include <utility>

namespace lumora::client {
namespace {

using Json = nlohmann::json;

// The value of `key`. Empty if the key is missing, or the value has another type or does not fit.
template <typename Value>
std::optional<Value> find(const Json& event, const char* key) {
  const auto found = event.find(key);
  constexpr bool isNumber = std::is_arithmetic_v<Value>;
  if (found == event.end() || !(isNumber ? found->is_number() : found->is_string())) return {};
  if constexpr (isNumber) {
    const auto number = found->template get<double>();
    using Limits = std::numeric_limits<Value>;
    if (number < static_cast<double>(Limits::lowest()) ||
        number >= static_cast<double>(Limits::max()) + 1)
      return {};
  }
  return found->template get<Value>();
}

// Sets `value` to what `find` returns. Leaves it as it is if `find` returns nothing.
template <typename Value>
void read(const Json& event, const char* key, Value& value) {
  if (auto found = find<Value>(event, key)) value = *std::move(found);
}

// Zero if the key is missing, or its value is not a number.
Seconds milliseconds(const Json& event, const char* key) {
  return std::chrono::duration<double, std::milli>(find<double>(event, key).value_or(0));
}

FrameSize readSize(const Json& event, const char* width, const char* height) {
  return {find<int>(event, width).value_or(0), find<int>(event, height).value_or(0)};
}

Ready readReady(const Json& event) {
  Ready ready;
  read(event, "port", ready.port);
  return ready;
}

Stats::Delivery readDelivery(const Json& event) {
  Stats::Delivery delivery;
  read(event, "credit_drops", delivery.creditDrops);
  read(event, "send_drops", delivery.sendDrops);
  read(event, "resync_wait_drops", delivery.resyncDrops);
  read(event, "idr_resyncs", delivery.resyncs);
  delivery.roundTrip = milliseconds(event, "ack_rtt_ms");
  delivery.longestRoundTrip = milliseconds(event, "ack_rtt_max_ms");
  delivery.oldestUnacknowledged = milliseconds(event, "ack_oldest_ms");
  read(event, "max_pending_acks", delivery.unacknowledged);
  read(event, "max_unacked_observed", delivery.mostUnacknowledged);
  return delivery;
}

Stats::Encoding readEncoding(const Json& event) {
  Stats::Encoding encoding;
  encoding.preview = readSize(event, "preview_width", "preview_height");
  encoding.take = readSize(event, "record_width", "record_height");
  read(event, "record_encoded_frames", encoding.takeFrames);
  encoding.takeEncodeTime = milliseconds(event, "record_encode_ms");
  read(event, "record_encoder_failures", encoding.failedTakes);
  read(event, "max_movie_work_observed", encoding.mostMovieWork);
  return encoding;
}

Stats readStats(const Json& event) {
  Stats stats;
  read(event, "clients", stats.clients);
  read(event, "pending_hello", stats.waitingClients);
  read(event, "encoded_frames", stats.encodedFrames);
  read(event, "dropped_raw", stats.droppedFrames);
  read(event, "dropped_peers", stats.droppedClients);
  stats.droppedSound = find<std::uint64_t>(event, "dropped_sound");
  stats.encodeTime = milliseconds(event, "encode_ms");
  stats.isEncoding = find<int>(event, "encode_inflight").value_or(0) > 0;
  if (!event.contains("credit_drops")) return stats;
  stats.delivery = readDelivery(event);
  stats.encoding = readEncoding(event);
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
  recording.path = find<std::string>(event, "path").value_or("");
  read(event, "error", recording.error);
  recording.duration = Seconds(find<double>(event, "duration").value_or(0));
  read(event, "frames", recording.frames);
  read(event, "dropped", recording.dropped);
  read(event, "throttled", recording.throttled);
  recording.size = readSize(event, "width", "height");
  recording.targetFPS = find<int>(event, "target_fps");
  if (*state == TakeState::failed) {
    // The event of a refused start has no `target_fps`.
    recording.failure = recording.targetFPS ? TakeFailure::failed : TakeFailure::refused;
  }
  recording.recentFPS = find<double>(event, "recent_fps");
  recording.framesInMovie = find<std::uint64_t>(event, "frames_in_movie");
  if (const auto left = find<double>(event, "seconds_left")) recording.timeLeft = Seconds(*left);
  read(event, "stopped_for", recording.stoppedFor);
  read(event, "frame_log_error", recording.frameLogError);
  recording.soundGaps = find<std::uint64_t>(event, "sound_gaps");
  if (const auto none = find<double>(event, "sound_missing"))
    recording.soundMissing = Seconds(*none);
  if (const auto kept = find<std::string>(event, "kept_path"); kept && !kept->empty()) {
    recording.kept =
        Recording::Kept{.path = recording.path.parent_path() / *kept,
                        .frames = find<std::uint64_t>(event, "kept_frames").value_or(0),
                        .duration = Seconds(find<double>(event, "kept_duration").value_or(0))};
  }
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

std::string toText(const Exited& end) {
  if (end.signal != 0) return "signal " + std::to_string(end.signal);
  return end.status < 0 ? "an unknown status" : "status " + std::to_string(end.status);
}

}  // namespace lumora::client
