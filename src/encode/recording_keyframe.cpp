#include "encode/recording_keyframe.h"

#include "base/limits.h"
#include "encode/encoder_failure.h"
#include "h264/nal_units.h"

namespace lumora {

bool recordingKeyframe(const EncodedSample& sample) {
  const auto length = sample.dataIsReady() ? sample.dataLength() : std::nullopt;
  if (!length) throw EncoderFailure::message("camera sample has no bytes");
  if (*length < minimumSampleBytes || *length > maximumRecordingSampleBytes) {
    throw EncoderFailure::message("camera sample too large");
  }
  const NalWalk walk = walkNalUnits(*length, [&](std::size_t offset, MutableByteView space) {
    return sample.copyBytes(offset, space) == 0;
  });
  switch (walk.error) {
    case NalWalkError::none:
      return walk.idr;
    case NalWalkError::truncatedHeader:
      throw EncoderFailure::message("invalid camera NAL header");
    case NalWalkError::badSize:
      throw EncoderFailure::message("invalid camera NAL size");
    case NalWalkError::unreadableHeader:
      throw EncoderFailure::message("camera NAL unavailable");
  }
  return false;
}

}  // namespace lumora
