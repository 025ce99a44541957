// The "stats" event: at most one a second on request, one at once when forced. Behind each one the
// take is asked for progress, and its last event is repeated unless it is recording.

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
  if (const auto take = recordingTake()) take->reportProgress();
  // Repeated, since the parent may have missed it when its pipe was full.
  if (movieStatus && movieStatus->state != TakeState::recording) emit(movieStatus->json);
}

Json VideoEncoder::coreStatistics() const {
  const RawAdmission::Figures input = raw.figures();
  return {{"type", "stats"},
          {"clients", countClients()},
          {"pending_hello", countWaitingPeers()},
          {"encoded_frames", encodedFrames},
          {"dropped_raw", input.droppedRaw},
          {"dropped_peers", droppedPeers},
          {"encode_ms", encodeMilliseconds},
          {"encode_inflight", input.rawBusy ? 1 : 0}};
}

void VideoEncoder::addDiagnostics(Json& event) const {
  std::size_t pendingAcknowledgements = 0;
  for (const auto& [id, peer] : peers) {
    pendingAcknowledgements = std::max(pendingAcknowledgements, peer->unacknowledged.size());
  }
  event["credit_drops"] = delivery.creditDrops;
  event["send_drops"] = delivery.sendDrops;
  event["resync_wait_drops"] = delivery.resyncWaitDrops;
  event["idr_resyncs"] = delivery.idrResyncs;
  event["ack_rtt_ms"] = acknowledgements.acknowledgementRTT;
  event["ack_oldest_ms"] = acknowledgements.acknowledgementOldest;
  event["ack_rtt_max_ms"] = acknowledgements.acknowledgementRTTMaximum;
  event["max_pending_acks"] = pendingAcknowledgements;
  event["max_unacked_observed"] = delivery.maxUnacknowledgedObserved;
  event["preview_width"] = width;
  event["preview_height"] = height;
  event["record_width"] = recordingWidth;
  event["record_height"] = recordingHeight;
  event["record_encoded_frames"] = recordingEncodedFrames;
  event["record_encode_ms"] = recordingEncodeMilliseconds;
  event["record_encoder_failures"] = recordingEncoderFailures;
  event["max_movie_work_observed"] = maximumMovieWorkObserved;
}

}  // namespace lumora
