// Packets and samples: limits, malformed encoder output, start codes; the client's parser reads
// what the service writes.

#include <lumora/packets.h>
#include "encode/encoder_failure.h"
#include "h264/annex_b.h"
#include "stream/packet.h"
#include "tests/unit/probe.h"

namespace lumora {
namespace {

// A sample whose every part can be made to fail.
struct BrokenSample final : EncodedSample, FormatDescription {
  bool dataIsReady() const override { return ready; }
  std::optional<std::size_t> dataLength() const override {
    return hasLength ? std::optional(data.size()) : std::nullopt;
  }
  Status copyBytes(std::size_t offset, MutableByteView space) const override {
    std::ranges::copy(ByteView(data).subspan(offset, space.size()), space.begin());
    return copyStatus;
  }
  std::shared_ptr<const FormatDescription> format() const override {
    return hasFormat ? std::shared_ptr<const FormatDescription>(this, [](auto*) {}) : nullptr;
  }
  ParameterSet parameterSet(std::size_t) const override { return {setStatus, set, prefix}; }
  int width() const override { return 640; }
  int height() const override { return 360; }
  ColourDescription colour() const override { return {}; }

  bool ready = true, hasLength = true, hasFormat = true;
  Bytes data = {0, 0, 0, 1, 0x65};
  Status copyStatus = 0, setStatus = 0;
  Bytes set = Bytes(4096, 0x67);
  std::size_t prefix = 4;
};

TEST(Packets, FailuresNameWhatIsWrong) {
  using Change = std::function<void(BrokenSample&)>;
  const auto bytes = [](Bytes data) { return Change([data](BrokenSample& s) { s.data = data; }); };
  const std::pair<const char*, Change> cases[] = {
      {"encoded sample has no bytes", [](auto& s) { s.ready = false; }},
      {"encoded sample has no bytes", [](auto& s) { s.hasLength = false; }},
      {"encoded sample too large", bytes({0, 0, 0, 0})},
      {"encoded sample too large", [](auto& s) { s.data.resize(2097143); }},
      {"encoded sample copy failed (-7)", [](auto& s) { s.copyStatus = -7; }},
      {"invalid encoded NAL header", bytes({0, 0, 0, 1, 0x65, 0, 0, 0})},
      {"invalid encoded NAL size", bytes({0, 0, 0, 2, 0x65})},
      {"invalid encoded NAL size", bytes({0, 0, 0, 0, 0x65})},
      {"invalid encoded NAL size", bytes({255, 255, 255, 255, 0x65})},
      {"missing H264 description", [](auto& s) { s.hasFormat = false; }},
      {"H264 parameter set failed (-3)", [](auto& s) { s.setStatus = -3; }},
      {"H264 parameter set failed (0)", [](auto& s) { s.set.clear(); }},
      {"H264 parameter set failed (0)", [](auto& s) { s.set.resize(4097); }},
      {"H264 parameter set failed (0)", [](auto& s) { s.prefix = 2; }}};
  for (const auto& [message, change] : cases) {
    BrokenSample sample;
    change(sample);
    EXPECT_THAT([&] { prepareFrame(sample, 1, 640, 360); },
                testing::ThrowsMessage<EncoderFailure>(message));
  }
  EXPECT_NO_THROW(prepareFrame(BrokenSample(), 1, 640, 360));
  EXPECT_THROW(prepareFrame(BrokenSample(), 1, 65536, 360), EncoderFailure);
  EXPECT_FALSE(prepareFrame(MemorySample({0, 0, 0, 1, 0x41}, nullptr), 1, 640, 360).keyframe);
}

TEST(Packets, LargestSampleFits) {
  const auto sample = keySample(2097138);
  Bytes data(sample->dataLength().value());
  EXPECT_EQ(sample->copyBytes(0, data), 0);
  const FramePackets packets = prepareFrame(*sample, 0x0102030405060708, 640, 360);
  EXPECT_TRUE(packets.keyframe);
  client::PacketParser parser;
  parser.feed(*packets.configuration);
  parser.feed(*packets.frame);
  EXPECT_EQ(client::parseConfiguration(parser.next()->payload).width, 640);
  const auto frame = parser.next();
  EXPECT_EQ(frame->frameID, 0x0102030405060708u);
  EXPECT_TRUE(frame->keyframe);
  EXPECT_EQ(frame->payload, data);
}

TEST(PacketParser, RefusesWhatNoHelperSends) {
  // Too short, too long, of no type.
  for (const Bytes& bytes :
       {Bytes{0, 0, 0, 9, 2}, {0, 0x20, 0, 1, 2}, {0, 0, 0, 10, 3, 0, 0, 0, 0, 0, 0, 0, 1, 0}}) {
    client::PacketParser parser;
    parser.feed(bytes);
    EXPECT_THROW(parser.next(), std::runtime_error);
  }
  EXPECT_THROW(client::parseConfiguration(Bytes{0, 1, 0, 1, 0, 9, 0, 9}), std::runtime_error);
  EXPECT_THROW(client::toAnnexB({client::Packet::Type::frame, 1, false, {0, 0, 0, 9, 1}}),
               std::runtime_error);
}

TEST(AnnexB, SplitsBothStartCodesAndDropsPadding) {
  const Bytes stream = {0, 0, 0, 1, 0x67, 1, 0, 0, 1, 0x68, 0, 0, 0, 1, 0x65, 0, 0, 3, 1, 0, 0};
  using testing::ElementsAre;
  EXPECT_THAT(splitAnnexB(stream),
              ElementsAre(ElementsAre(0x67, 1), ElementsAre(0x68), ElementsAre(0x65, 0, 0, 3, 1)));
  EXPECT_TRUE(splitAnnexB(Bytes{0, 0}).empty());
  EXPECT_TRUE(splitAnnexB(Bytes{1, 0, 0, 1}).empty());
}

}  // namespace
}  // namespace lumora
