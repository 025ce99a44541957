// Fuzzes the checks that encoded samples pass before they become packets or go into movies.

#include "encode/encoder_failure.h"
#include "encode/recording_keyframe.h"
#include "fuzz/fuzzed_service.h"
#include "h264/nal_units.h"
#include "stream/packet.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace lumora;
  const auto half = size / 2;
  const auto format =
      std::make_shared<MemoryFormatDescription>(Bytes(data, data + half % 80), Bytes{0x68, 0xEE},
                                                640, 360, ColourDescription{1, 13, 1, false});
  const MemorySample sample(Bytes(data + half % 80, data + size), format);
  const NalWalk walk = walkNalUnits(ByteView(data + half % 80, size - half % 80));
  try {
    const FramePackets packets = prepareFrame(sample, 1, 640, 360);
    require(walk.error == NalWalkError::none && packets.keyframe == walk.idr);
    require(packets.frame->size() == packetHeaderBytes + sample.dataLength().value());
    require((packets.configuration != nullptr) == packets.keyframe);
  } catch (const EncoderFailure&) {
  }
  try {
    require(recordingKeyframe(sample) == walk.idr && walk.error == NalWalkError::none);
  } catch (const EncoderFailure&) {
  }
  return 0;
}
