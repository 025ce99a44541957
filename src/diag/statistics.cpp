// The "stats" event. It is emitted at most once a second, unless it is forced. After each "stats"
// event a running take is asked for its progress, which it reports at most once a second. The last
// event of the latest take is repeated, unless its state is "recording".

#include <algorithm>

#include "app/video_encoder.h"

namespace lumora {
namespace {

constexpr double reportInterval = 1.0;  // seconds

}  // namespace

void VideoEncoder::emitStats(bool force) {
  const double now = uptime();
  if (!force && now - lastStats < reportInterval) return;
  lastStats = now;
  Json event = coreStatistics();
  if (now - lastDiagnostics >= reportInterval) {
    lastDiagnostics = now;
    addDiagnostics(event);
  }
  emit(event);
  if (const auto movie = take.recordingTake()) movie->reportProgress();
  // Repeated, since the pipe to the parent may have been full.
  if (take.movieStatus && take.movieStatus->state != TakeState::recording) {
    emit(take.movieStatus->json);
  }
}

Json VideoEncoder::coreStatistics() const {
  return {{"type", "stats"},
          {"clients", preview.countAuthenticatedPeers()},
          {"pending_hello", preview.countWaitingPeers()},
          {"encoded_frames", preview.encodedFrames},
          {"dropped_raw", raw.dropped()},
          {"dropped_peers", preview.droppedPeers},
          {"encode_ms", preview.encodeMilliseconds},
          {"encode_inflight", raw.isBusy() ? 1 : 0}};
}

void VideoEncoder::addDiagnostics(Json& event) const {
  std::size_t pendingAcknowledgements = 0;
  for (const auto& [id, peer] : preview.peers) {
    pendingAcknowledgements = std::max(pendingAcknowledgements, peer->unacknowledged.size());
  }
  event["credit_drops"] = preview.creditDrops;
  event["send_drops"] = preview.sendDrops;
  event["resync_wait_drops"] = preview.resyncWaitDrops;
  event["idr_resyncs"] = preview.idrResyncs;
  event["ack_rtt_ms"] = preview.acknowledgements.acknowledgementRTT;
  event["ack_oldest_ms"] = preview.acknowledgements.acknowledgementOldest;
  event["ack_rtt_max_ms"] = preview.acknowledgements.acknowledgementRTTMaximum;
  event["max_pending_acks"] = pendingAcknowledgements;
  event["max_unacked_observed"] = preview.maxUnacknowledgedObserved;
  event["preview_width"] = preview.width;
  event["preview_height"] = preview.height;
  const auto& movie = take.recording.movie;
  event["record_width"] = movie ? movie->profile.width : 0;
  event["record_height"] = movie ? movie->profile.height : 0;
  event["record_encoded_frames"] = take.recordingEncodedFrames;
  event["record_encode_ms"] = take.recordingEncodeMilliseconds;
  event["record_encoder_failures"] = take.recordingEncoderFailures;
  event["max_movie_work_observed"] = take.maximumMovieWorkObserved;
  if (sound) event["dropped_sound"] = sound->dropped();
}

}  // namespace lumora
